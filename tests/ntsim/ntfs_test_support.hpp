// Helpers for the tests of the in-memory volumes: opens through the Volume interface and raw views
// of the records the volume writes.
#pragma once

#include <gtest/gtest.h>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/text.hpp>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace ntfs_test {

struct Opened {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    ULONG_PTR information = ~ULONG_PTR{0};
    std::unique_ptr<ntsim::VolumeOpen> open;
    std::u16string finalComponent;
    std::vector<UCHAR> reparseBuffer;
};

struct OpenRequest {
    std::u16string path;
    ACCESS_MASK access = FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ULONG disposition = FILE_OPEN;
    ULONG options = 0;
    ULONG flags = 0;
    bool ignoreShareAccess = false;
    ULONG attributes = 0;
};

inline Opened OpenOn(ntsim::Volume& volume, const OpenRequest& request)
{
    ntsim::VolumeCreateParameters parameters;
    parameters.path = request.path;
    parameters.desiredAccess = request.access;
    parameters.shareAccess = request.share;
    parameters.disposition = request.disposition;
    parameters.createOptions = request.options;
    parameters.flags = request.flags;
    parameters.ignoreShareAccess = request.ignoreShareAccess;
    parameters.fileAttributes = request.attributes;
    Opened result;
    result.status =
        volume.Create(parameters, &result.open, &result.information, &result.finalComponent, &result.reparseBuffer);
    return result;
}

// A value of type T at a byte offset of a record, read as the published layout places it.
template <typename T>
T At(const std::vector<unsigned char>& bytes, size_t offset)
{
    T value;
    EXPECT_LE(offset + sizeof(T), bytes.size());
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

inline std::string NameAt(const std::vector<unsigned char>& bytes, size_t offset, size_t byteLength)
{
    std::u16string text(byteLength / 2, u'\0');
    std::memcpy(text.data(), bytes.data() + offset, byteLength);
    return ntsim::ToUtf8(text);
}

class VolumeTest : public ::testing::Test {
protected:
    Opened Open(const OpenRequest& request) { return OpenOn(*volume, request); }

    // Opens that must succeed.
    std::unique_ptr<ntsim::VolumeOpen> MustOpen(const OpenRequest& request)
    {
        Opened opened = Open(request);
        EXPECT_EQ(opened.status, STATUS_SUCCESS) << ntsim::ToUtf8(request.path);
        return std::move(opened.open);
    }

    std::vector<unsigned char> Query(ntsim::VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, ULONG length,
                                     NTSTATUS expected = STATUS_SUCCESS)
    {
        std::vector<unsigned char> buffer(length, 0xCC);
        ULONG returned = 0;
        EXPECT_EQ(volume->QueryInformation(open, infoClass, buffer.data(), length, &returned), expected);
        buffer.resize(returned);
        return buffer;
    }

    template <typename Record>
    NTSTATUS Set(ntsim::VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, const Record& record,
                 const std::u16string* target = nullptr)
    {
        return volume->SetInformation(open, infoClass, &record, sizeof(record), target);
    }

    NTSTATUS Rename(ntsim::VolumeOpen& open, std::u16string target, bool replace,
                    FILE_INFORMATION_CLASS infoClass = FileRenameInformation)
    {
        FILE_RENAME_INFORMATION rename{};
        rename.ReplaceIfExists = replace;
        return volume->SetInformation(open, infoClass, &rename, sizeof(rename), &target);
    }

    NTSTATUS Delete(ntsim::VolumeOpen& open, bool deleteFile = true)
    {
        FILE_DISPOSITION_INFORMATION disposition{};
        disposition.DeleteFile = deleteFile;
        return Set(open, FileDispositionInformation, disposition);
    }

    FILE_STANDARD_INFORMATION Standard(ntsim::VolumeOpen& open)
    {
        FILE_STANDARD_INFORMATION standard{};
        ULONG returned = 0;
        EXPECT_EQ(volume->QueryInformation(open, FileStandardInformation, &standard, sizeof(standard), &returned),
                  STATUS_SUCCESS);
        return standard;
    }

    // Cleanup and close of an open, as the I/O manager does at the last handle and last reference.
    void Close(std::unique_ptr<ntsim::VolumeOpen>& open)
    {
        volume->Cleanup(*open);
        open.reset();
    }

    std::shared_ptr<ntsim::MemoryVolume> volume = ntsim::CreateNtfsVolume(u"\\Device\\HarddiskVolume2");
};

}  // namespace ntfs_test
