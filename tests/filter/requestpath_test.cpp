// The path of a request as the open gate builds it: PathFromRequest on file objects shaped as the
// I/O manager shapes them (relative, root, volume opens, names at the limit of a UNICODE_STRING),
// and NormalizeFilePath inside real creates, run by a probe filter above FolderMerge.
#include "trace_fixture.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/filterregistration.hpp>
#include <ntsim/sim/pool.hpp>

#include <cstdio>
#include <functional>
#include <optional>

#include "driver/globals.h"
#include "driver/identity.h"

namespace foldermerge::testing {
namespace {

constexpr char kVolume[] = "\\Device\\HarddiskVolume2";

std::string Text(const UNICODE_STRING* string)
{
    return string == nullptr ? std::string("<none>") : ntsim::ToUtf8(*string);
}

// A file object as the I/O manager hands it to a pre-create: its name, and the related file
// object of a relative open.
struct NamedFileObject {
    std::u16string name;
    FILE_OBJECT fileObject{};

    explicit NamedFileObject(std::u16string_view text, PFILE_OBJECT related = nullptr) : name(text)
    {
        fileObject.RelatedFileObject = related;
        fileObject.FileName.Buffer = reinterpret_cast<PWCH>(name.data());
        fileObject.FileName.Length = static_cast<USHORT>(name.size() * sizeof(WCHAR));
        fileObject.FileName.MaximumLength = fileObject.FileName.Length;
    }
};

class RequestPath : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        ntsim::UnicodeStringHolder name(u"\\Device\\HarddiskVolume2");
        ASSERT_EQ(FltGetVolumeFromName(g_ServiceData.FilterHandle, name.get(), &volume_), STATUS_SUCCESS);
    }

    void TearDown() override
    {
        ntsim::faults::Reset();
        if (volume_ != nullptr) {
            FltObjectDereference(volume_);
        }
        LoadedFilter::TearDown();
    }

    // PathFromRequest for the file object; *path gets the text, or "<none>" when none was made.
    NTSTATUS Path(PFILE_OBJECT fileObject, UCHAR bIncludeRelated, std::string* path)
    {
        const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, volume_,
                                          nullptr, fileObject, nullptr};
        FLT_IO_PARAMETER_BLOCK iopb{};
        iopb.MajorFunction = IRP_MJ_CREATE;
        iopb.TargetFileObject = fileObject;
        OwnedString* pstrPath = nullptr;
        NTSTATUS status = PathFromRequest(&objects, &iopb, bIncludeRelated, &pstrPath);
        *path = Text(pstrPath);
        if (pstrPath != nullptr) {
            EXPECT_EQ(pstrPath->Length % sizeof(WCHAR), 0u);
            EXPECT_LE(pstrPath->Length, pstrPath->MaximumLength);
        }
        FreeUnicodeString(&pstrPath);
        return status;
    }

    std::string Path(PFILE_OBJECT fileObject, UCHAR bIncludeRelated = TRUE)
    {
        std::string path;
        EXPECT_EQ(Path(fileObject, bIncludeRelated, &path), STATUS_SUCCESS);
        return path;
    }

    // The path of an open of name, relative to an open of related when one is given.
    std::string PathOf(std::u16string_view name, std::optional<std::u16string_view> related = std::nullopt)
    {
        std::optional<NamedFileObject> relatedObject;
        if (related) {
            relatedObject.emplace(*related);
        }
        NamedFileObject file(name, relatedObject ? &relatedObject->fileObject : nullptr);
        return Path(&file.fileObject);
    }

    PFLT_VOLUME volume_ = nullptr;
};

// The volume name comes before the name as the caller gave it; of the root, the volume itself (an
// empty name) and trailing stars, only a trailing backslash and star is dropped, even one whose
// halves come from the two names of a relative open.
TEST_F(RequestPath, TheVolumeNameComesBeforeTheNameWithOnlyATrailingBackslashStarDropped)
{
    const std::pair<std::u16string, std::string> cases[] = {
        {u"\\Dir\\LONGFO~1\\a.txt\\", "\\Dir\\LONGFO~1\\a.txt\\"},
        {u"\\", "\\"},
        {u"", ""},
        {u"\\Data\\*", "\\Data"},
        {u"\\*", ""},
        {u"\\Data*", "\\Data*"},
        {u"\\*\\x", "\\*\\x"},
    };
    for (const auto& [name, expected] : cases) {
        EXPECT_EQ(PathOf(name), kVolume + expected) << ntsim::ToUtf8(name);
    }
    FILE_OBJECT noBuffer{};
    EXPECT_EQ(Path(&noBuffer), kVolume);
    EXPECT_EQ(PathOf(u"*", u"\\Data\\"), std::string(kVolume) + "\\Data");
}

TEST_F(RequestPath, ARelativeOpenTakesOneLevelOfItsRelatedName)
{
    NamedFileObject top(u"\\Top");
    NamedFileObject directory(u"\\dir", &top.fileObject);
    NamedFileObject file(u"file", &directory.fileObject);
    EXPECT_EQ(Path(&file.fileObject), std::string(kVolume) + "\\dir\\file") << "the related object's own related "
                                                                               "object isn't looked at";

    // A related name that ends in a backslash gets no second one; an empty related name gets one.
    EXPECT_EQ(PathOf(u"file", u"\\dir\\"), std::string(kVolume) + "\\dir\\file");
    EXPECT_EQ(PathOf(u"file", u"\\"), std::string(kVolume) + "\\file");
    EXPECT_EQ(PathOf(u"file", u""), std::string(kVolume) + "\\file");

    // A related object without a name buffer, or a caller that leaves related names out.
    FILE_OBJECT unnamed{};
    NamedFileObject inUnnamed(u"file", &unnamed);
    EXPECT_EQ(Path(&inUnnamed.fileObject), std::string(kVolume) + "file");
    EXPECT_EQ(Path(&file.fileObject, FALSE), std::string(kVolume) + "file");
}

TEST_F(RequestPath, ANameTooLongForAUnicodeStringFailsAndDoesNotWrap)
{
    ntsim::pool::Checkpoint checkpoint(FOLDERMERGE_POOL_TAG);
    const size_t volumeChars = std::string(kVolume).size();
    const size_t limitChars = MAXUSHORT / sizeof(WCHAR);  // 32767 characters

    // The volume and the name together fill a UNICODE_STRING to the last character.
    NamedFileObject fits(u"\\" + std::u16string(limitChars - volumeChars - 1, u'f'));
    std::string path;
    ASSERT_EQ(Path(&fits.fileObject, TRUE, &path), STATUS_SUCCESS);
    EXPECT_EQ(path.size(), limitChars);

    // One character more, in the name or in the separator of a relative open: a 16-bit sum
    // would wrap to a short string.
    NamedFileObject over(u"\\" + std::u16string(limitChars - volumeChars, u'f'));
    EXPECT_EQ(Path(&over.fileObject, TRUE, &path), STATUS_NAME_TOO_LONG);
    EXPECT_EQ(path, "<none>");
    NamedFileObject related(u"\\" + std::u16string(limitChars - volumeChars - 2, u'd'));
    NamedFileObject relative(u"f", &related.fileObject);
    EXPECT_EQ(Path(&relative.fileObject, TRUE, &path), STATUS_NAME_TOO_LONG);
    NamedFileObject huge(std::u16string(limitChars, u'h'), &related.fileObject);
    EXPECT_EQ(Path(&huge.fileObject, TRUE, &path), STATUS_NAME_TOO_LONG);
    EXPECT_TRUE(checkpoint.Verify("paths too long"));
}

TEST_F(RequestPath, TheVolumeNameQueryAndTheAllocationsFailThePath)
{
    NamedFileObject file(u"\\Data\\a.txt");
    std::string path;
    // The first query (the size) fails as it stands, warnings included.
    for (NTSTATUS failure : {STATUS_INSUFFICIENT_RESOURCES, STATUS_FLT_VOLUME_NOT_FOUND, STATUS_BUFFER_OVERFLOW}) {
        ntsim::faults::Reset();
        ntsim::faults::FailRoutine("FltGetVolumeName", failure);
        EXPECT_EQ(Path(&file.fileObject, TRUE, &path), failure);
        EXPECT_EQ(path, "<none>");
    }
    // A size query that succeeded would name no size: no path, and no success without one.
    ntsim::faults::Reset();
    ntsim::faults::FailRoutine("FltGetVolumeName", STATUS_SUCCESS);
    EXPECT_EQ(Path(&file.fileObject, TRUE, &path), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(path, "<none>");
    // The second query (the name) fails as it stands too.
    ntsim::faults::Reset();
    ntsim::faults::FailNthPointOf({.routines = {"FltGetVolumeName"}}, 2, STATUS_FLT_VOLUME_NOT_FOUND);
    EXPECT_EQ(Path(&file.fileObject, TRUE, &path), STATUS_FLT_VOLUME_NOT_FOUND);
    EXPECT_EQ(path, "<none>");

    // Any allocation that fails: STATUS_NO_MEMORY, and nothing left behind.
    ntsim::pool::Checkpoint checkpoint(FOLDERMERGE_POOL_TAG);
    for (uint64_t point = 1;; point++) {
        ntsim::faults::Reset();
        ntsim::faults::FailNthAllocation(point);
        NTSTATUS status = Path(&file.fileObject, TRUE, &path);
        if (ntsim::faults::FailuresInjected() == 0) {
            EXPECT_EQ(status, STATUS_SUCCESS);
            EXPECT_GT(point, 1u) << "the path needs pool";
            break;
        }
        EXPECT_EQ(status, STATUS_NO_MEMORY) << "allocation " << point;
        EXPECT_EQ(path, "<none>");
    }
    ntsim::faults::Reset();
    EXPECT_TRUE(checkpoint.Verify("failed path allocations"));

    const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, volume_,
                                      nullptr, nullptr, nullptr};
    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.TargetFileObject = &file.fileObject;
    OwnedString* pstrPath = nullptr;
    EXPECT_EQ(PathFromRequest(&objects, nullptr, TRUE, &pstrPath), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PathFromRequest(&objects, &iopb, TRUE, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(pstrPath, nullptr);
}

// ---- NormalizeFilePath inside a create ----

// A filter above FolderMerge whose pre-create runs the test's probe with the create's own callback
// data, and leaves the open alone.
std::function<void(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS)>& Probe()
{
    static std::function<void(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS)> probe;
    return probe;
}

PFLT_FILTER probeFilter = nullptr;

FLT_PREOP_CALLBACK_STATUS FLTAPI ProbePreCreate(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects, PVOID*)
{
    if (Probe()) {
        Probe()(Data, FltObjects);
    }
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

NTSTATUS FLTAPI ProbeUnload(FLT_FILTER_UNLOAD_FLAGS)
{
    FltUnregisterFilter(probeFilter);
    probeFilter = nullptr;
    return STATUS_SUCCESS;
}

constexpr UCHAR kCreateOnly[] = {IRP_MJ_CREATE};
constexpr auto kProbeOperations = ntsim::RegisterEachOperation(kCreateOnly, ProbePreCreate, nullptr);
constexpr FLT_REGISTRATION kProbeRegistration = {
    .Size = sizeof(FLT_REGISTRATION),
    .Version = FLT_REGISTRATION_VERSION,
    .OperationRegistration = kProbeOperations.entries,
    .FilterUnloadCallback = ProbeUnload,
};

NTSTATUS ProbeEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    return ntsim::RegisterAndStartFiltering(driver, kProbeRegistration, &probeFilter);
}

// What NormalizeFilePath made of the path of one create.
struct Normalized {
    NTSTATUS status = STATUS_PENDING;
    std::string before, after;
    bool replaced = false;  // the string was replaced by a new one
};

class LongNames : public TracedFilter {
protected:
    void SetUp() override
    {
        TracedFilter::SetUp();
        volume_->SeedDirectory(u"\\LongFolderName");
        volume_->SeedFile(u"\\LongFolderName\\a~b.txt", "a");
        ASSERT_EQ(ntsim::LoadFilter(ProbeEntry, {.name = u"Probe", .altitude = u"370000"}), STATUS_SUCCESS);
        StartSession();
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        TakeEvents();
        process_ = UserProcess(kAlice);
    }

    void TearDown() override
    {
        Probe() = nullptr;
        ntsim::faults::Reset();
        EXPECT_EQ(ntsim::UnloadFilter(u"Probe"), STATUS_SUCCESS);
        TracedFilter::TearDown();
    }

    // Opens path (FILE_OPEN_IF) and runs PathFromRequest and NormalizeFilePath in its pre-create;
    // with failCopy the filter's next allocation during NormalizeFilePath fails.
    Normalized Normalize(std::u16string_view path, bool failCopy = false)
    {
        Normalized result;
        Probe() = [&](PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects) {
            OwnedString* pstrPath = nullptr;
            if (PathFromRequest(FltObjects, Data->Iopb, TRUE, &pstrPath) != STATUS_SUCCESS) {
                ADD_FAILURE() << "no path to normalize";
                return;
            }
            OwnedString* pstrBefore = pstrPath;
            result.before = Text(pstrPath);
            if (failCopy) {
                ntsim::faults::FailAllocationsWithTag(FOLDERMERGE_POOL_TAG, ntsim::faults::Persistence::Once);
            }
            result.status = NormalizeFilePath(Data, &pstrPath);
            if (failCopy) {
                ntsim::faults::Reset();
            }
            result.replaced = pstrPath != pstrBefore;
            result.after = Text(pstrPath);
            FreeUnicodeString(&pstrPath);
        };
        ntsim::AttachThread attach(process_);
        OpenAndClose(path, FILE_READ_ATTRIBUTES, {.disposition = FILE_OPEN_IF});
        Probe() = nullptr;
        return result;
    }

    // The error lines of NormalizeFilePath since the last call.
    std::vector<std::string> NormalizeErrors()
    {
        std::vector<std::string> lines;
        for (const TraceEvent& event : TakeEvents()) {
            if (event.function == "NormalizeFilePath") {
                EXPECT_EQ(event.id, 103) << event.message;
                lines.push_back(event.message);
            }
        }
        return lines;
    }

    std::shared_ptr<ntsim::Process> process_;
};

TEST_F(LongNames, AShortNameBecomesItsLongFormAndOtherPathsStayAsTheyAre)
{
    const std::u16string shortName = volume_->ShortName(u"\\LongFolderName");
    ASSERT_FALSE(shortName.empty());
    Normalized shortPath = Normalize(u"\\??\\C:\\" + shortName + u"\\a~b.txt");
    EXPECT_EQ(shortPath.status, STATUS_SUCCESS);
    EXPECT_EQ(shortPath.after, std::string(kVolume) + "\\LongFolderName\\a~b.txt");

    // A '~' in a long name takes the name query, and comes back with the same text.
    Normalized tildeInLongName = Normalize(u"\\??\\C:\\LongFolderName\\a~b.txt");
    EXPECT_EQ(tildeInLongName.status, STATUS_SUCCESS);
    EXPECT_TRUE(tildeInLongName.replaced);
    EXPECT_EQ(tildeInLongName.after, tildeInLongName.before);

    // Without a '~' the string is the same one: nothing was asked.
    Normalized plain = Normalize(u"\\??\\C:\\LongFolderName");
    EXPECT_EQ(plain.status, STATUS_SUCCESS);
    EXPECT_FALSE(plain.replaced);
    EXPECT_EQ(plain.after, std::string(kVolume) + "\\LongFolderName");
    EXPECT_EQ(NormalizeErrors(), std::vector<std::string>{});
}

TEST_F(LongNames, TheNameQueryRunsOnlyForAPathWithATilde)
{
    ntsim::faults::FailRoutine("FltGetFileNameInformation", STATUS_ACCESS_DENIED);
    Normalized plain = Normalize(u"\\??\\C:\\LongFolderName\\plain.txt");
    EXPECT_EQ(plain.status, STATUS_SUCCESS);
    EXPECT_FALSE(plain.replaced);

    Normalized tilde = Normalize(u"\\??\\C:\\LongFolderName\\a~b.txt");
    EXPECT_EQ(tilde.status, STATUS_ACCESS_DENIED);
    EXPECT_FALSE(tilde.replaced);
    EXPECT_EQ(tilde.after, std::string(kVolume) + "\\LongFolderName\\a~b.txt");
    EXPECT_EQ(NormalizeErrors(), std::vector<std::string>{"FltGetFileNameInformation failed: 0xc0000022"});
}

TEST_F(LongNames, AShortNameWithoutALongFormKeepsItsShortFormWithAnErrorLine)
{
    // No directory of that short name: the name query fails, and the path stays as it was.
    Normalized missing = Normalize(u"\\??\\C:\\NOWHER~1\\x.txt");
    EXPECT_FALSE(NT_SUCCESS(missing.status));
    EXPECT_FALSE(missing.replaced);
    EXPECT_EQ(missing.after, std::string(kVolume) + "\\NOWHER~1\\x.txt");
    char expected[64];
    std::snprintf(expected, sizeof expected, "FltGetFileNameInformation failed: 0x%08x",
                  static_cast<unsigned>(missing.status));
    // The probe's line, then the gate's own for the same open.
    EXPECT_EQ(NormalizeErrors(), (std::vector<std::string>{expected, expected}));
}

TEST_F(LongNames, AFailedCopyOfTheLongNameLeavesThePathAndReleasesTheNameInformation)
{
    const std::u16string shortName = volume_->ShortName(u"\\LongFolderName");
    ASSERT_FALSE(shortName.empty());
    const std::string expectedPath = std::string(kVolume) + "\\LongFolderName";
    Normalized failed = Normalize(u"\\??\\C:\\" + shortName, true);
    EXPECT_EQ(failed.status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_FALSE(failed.replaced);
    EXPECT_EQ(failed.after, failed.before);
    const std::string size = std::to_string(expectedPath.size() * 2 + sizeof(UNICODE_STRING));
    EXPECT_EQ(NormalizeErrors(), std::vector<std::string>{"Failed to allocate " + size + " bytes for pstrLongFileName"});
    // The probe filter's unload finds no name information of its own left referenced.
}

TEST_F(LongNames, AMissingPathIsRefusedWithAnErrorLine)
{
    EXPECT_EQ(NormalizeFilePath(nullptr, nullptr), STATUS_INVALID_PARAMETER);
    OwnedString* pstrPath = nullptr;
    EXPECT_EQ(NormalizeFilePath(nullptr, &pstrPath), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(NormalizeErrors(), (std::vector<std::string>{"ppPathName invalid", "ppPathName invalid"}));
}

}  // namespace
}  // namespace foldermerge::testing
