// The loaded FolderMerge on C: with what the tests of its service requests share: the bytes a message
// should have, written at the offsets of the wire tables, and the operation's objects a request
// routine takes.
#pragma once

#include "instance_fixture.hpp"

#include <fltKernel.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "servicerequests.h"

namespace foldermerge::testing {

inline constexpr char16_t kRequestSid[] = u"S-1-5-21-1004336348-1177238915-682003330-1001";

// The bytes a message should have: its code, the current process and thread, and its length; the
// rest as a test puts it.
class Image {
public:
    Image(uint32_t code, size_t size) : bytes_(size, 0)
    {
        Put<uint32_t>(0, code);
        Put<uint64_t>(8, (uint64_t)(ULONG_PTR)PsGetCurrentProcessId());
        Put<uint64_t>(16, (uint64_t)(ULONG_PTR)PsGetCurrentThreadId());
        Put<uint32_t>(24, (uint32_t)size);
    }

    template <typename T>
    void Put(size_t offset, T value)
    {
        std::memcpy(bytes_.data() + offset, &value, sizeof(T));
    }
    void PutText(size_t offset, std::u16string_view text)
    {
        std::memcpy(bytes_.data() + offset, text.data(), text.size() * 2);
    }
    void PutUnknownBlock(size_t offset)
    {
        for (size_t time = 0; time < 4; time++) {
            Put<int64_t>(offset + time * 8, 0x7FFFFFFFFFFFFFFFll);
        }
        Put<uint32_t>(offset + 32, 0xFFFFFFFFu);
    }
    // The block of a file of `size` bytes (one cluster, one link) whose basic information is basic.
    void PutFileBlock(size_t offset, const FILE_BASIC_INFORMATION& basic, int64_t size)
    {
        Put<int64_t>(offset, basic.CreationTime.QuadPart);
        Put<int64_t>(offset + 8, basic.LastAccessTime.QuadPart);
        Put<int64_t>(offset + 16, basic.LastWriteTime.QuadPart);
        Put<int64_t>(offset + 24, basic.ChangeTime.QuadPart);
        Put<uint32_t>(offset + 32, basic.FileAttributes);
        Put<int64_t>(offset + 40, (size + 4095) / 4096 * 4096);
        Put<int64_t>(offset + 48, size);
        Put<uint32_t>(offset + 56, 1);
    }
    const std::vector<uint8_t>& bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
};

// The first offset at which two byte strings differ, for a readable failure.
inline std::string FirstDifference(const std::vector<uint8_t>& actual, const std::vector<uint8_t>& expected)
{
    if (actual.size() != expected.size()) {
        return "size " + std::to_string(actual.size()) + " instead of " + std::to_string(expected.size());
    }
    for (size_t offset = 0; offset < actual.size(); offset++) {
        if (actual[offset] != expected[offset]) {
            return "byte " + std::to_string(offset) + " is " + std::to_string(actual[offset]) + " instead of " +
                   std::to_string(expected[offset]);
        }
    }
    return "equal";
}

class RequestTest : public LoadedFilterOnVolume {
protected:
    void SetUp() override
    {
        LoadedFilterOnVolume::SetUp();
        iopb_.TargetInstance = instance_;
        iopb_.MajorFunction = IRP_MJ_CREATE;
        iopb_.Parameters.Create.SecurityContext = &securityContext_;
    }

    // The operation's related objects: the driver's filter and its instance on C:.
    FLT_RELATED_OBJECTS RelatedObjects() const
    {
        return FLT_RELATED_OBJECTS{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, nullptr, instance_,
                                   nullptr, nullptr};
    }

    // An open's parameters: its options word, share access and desired access.
    void SetCreate(ULONG options, USHORT share, ACCESS_MASK access)
    {
        iopb_.Parameters.Create.Options = options;
        iopb_.Parameters.Create.ShareAccess = share;
        securityContext_.DesiredAccess = access;
    }

    IO_SECURITY_CONTEXT securityContext_{};
    FLT_IO_PARAMETER_BLOCK iopb_{};
};

}  // namespace foldermerge::testing
