// NtQueryFullAttributesFile as the filters see it: the fast network query open and its file object
// that lives on the caller's stack, and, when a filter refuses the fast form, the query-only open
// that replaces it (a create for attributes, the network-open query offered fast then as an IRP,
// cleanup and close), re-parsed like any open.
#include "io_testfilter.hpp"

#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstring>

namespace iotest {
namespace {

using Majors = std::vector<UCHAR>;

// What a pre-create of the query-only open asked for.
struct CreateSeen {
    ACCESS_MASK access = 0;
    ULONG options = 0;
    USHORT share = 0;
};

class NetworkQueryOpenTest : public IoTest {
protected:
    static inline bool refuseFastQueryOpen = false;
    static inline bool refuseFastQuery = false;
    static inline std::vector<CreateSeen> creates;

    // A refuses what the test asks it to and notes each create.
    void SetUp() override
    {
        IoTest::SetUp();
        refuseFastQueryOpen = false;
        refuseFastQuery = false;
        creates.clear();
        FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
            const UCHAR major = data->Iopb->MajorFunction;
            if (major == IRP_MJ_CREATE) {
                const auto& create = data->Iopb->Parameters.Create;
                creates.push_back({create.SecurityContext->DesiredAccess, create.Options, create.ShareAccess});
            }
            if (FLT_IS_FASTIO_OPERATION(data) && ((refuseFastQueryOpen && major == IRP_MJ_NETWORK_QUERY_OPEN) ||
                                                  (refuseFastQuery && major == IRP_MJ_QUERY_INFORMATION))) {
                return FLT_PREOP_DISALLOW_FASTIO;
            }
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        };
    }

    static NTSTATUS QueryFullAttributes(std::u16string_view path, FILE_NETWORK_OPEN_INFORMATION* information)
    {
        ntsim::UnicodeStringHolder name(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        return NtQueryFullAttributesFile(&attributes, information);
    }
};

TEST_F(NetworkQueryOpenTest, FastQueryOpenAnswersAloneWithAFileObjectThatGetsNoCleanupOrClose)
{
    volume_->SeedFile(u"\\dir\\fast.txt", "12345");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    ntsim::pool::Checkpoint checkpoint;

    FILE_NETWORK_OPEN_INFORMATION information{};
    ASSERT_EQ(QueryFullAttributes(u"\\??\\C:\\dir\\fast.txt", &information), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 5);
    EXPECT_EQ(information.FileAttributes, ULONG{FILE_ATTRIBUTE_ARCHIVE});
    EXPECT_EQ(MajorsSeenBy('A'), Majors{IRP_MJ_NETWORK_QUERY_OPEN});
    EXPECT_EQ(MajorsSeenBy('B'), Majors{IRP_MJ_NETWORK_QUERY_OPEN});
    const std::vector<Event> queryOpens = EventsOf(IRP_MJ_NETWORK_QUERY_OPEN);
    ASSERT_EQ(queryOpens.size(), 4u);
    EXPECT_TRUE(queryOpens[0].fastIo());
    EXPECT_EQ(queryOpens[0].requestorMode, UserMode);
    EXPECT_EQ(queryOpens[0].fileName, "\\dir\\fast.txt");
    EXPECT_EQ(queryOpens[3].status, STATUS_SUCCESS);
    EXPECT_EQ(volume_->OpenCount(), 0u);
    EXPECT_TRUE(checkpoint.Verify("fast network query open")) << "the stack file object and its name are gone";

    // A missing name is answered by the file system in the fast form.
    EXPECT_EQ(QueryFullAttributes(u"\\??\\C:\\dir\\missing.txt", &information), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(EventsOf(IRP_MJ_CREATE).size(), 0u);
}

TEST_F(NetworkQueryOpenTest, RefusedFastQueryOpenBecomesAQueryOnlyOpenThroughEveryFilter)
{
    volume_->SeedFile(u"\\refused.txt", "0123456789");
    refuseFastQueryOpen = true;
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);

    FILE_NETWORK_OPEN_INFORMATION information{};
    ASSERT_EQ(QueryFullAttributes(u"\\??\\C:\\refused.txt", &information), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 10);
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_NETWORK_QUERY_OPEN, IRP_MJ_CREATE, IRP_MJ_QUERY_INFORMATION,
                                         IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    EXPECT_EQ(MajorsSeenBy('B'), (Majors{IRP_MJ_CREATE, IRP_MJ_QUERY_INFORMATION, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}))
        << "the refused fast form never reached B";
    ASSERT_EQ(creates.size(), 1u);
    EXPECT_EQ(creates[0].access, ACCESS_MASK{FILE_READ_ATTRIBUTES});
    EXPECT_EQ(creates[0].options >> 24, ULONG{FILE_OPEN});
    EXPECT_EQ(creates[0].options & FILE_OPEN_REPARSE_POINT, ULONG{FILE_OPEN_REPARSE_POINT});
    EXPECT_EQ(EventsOf(IRP_MJ_CREATE).front().requestorMode, UserMode);
    const std::vector<Event> queries = EventsOf(IRP_MJ_QUERY_INFORMATION);
    ASSERT_FALSE(queries.empty());
    EXPECT_TRUE(queries.front().fastIo()) << "network-open information of a query-only open is offered fast";
    EXPECT_EQ(EventsOf(IRP_MJ_QUERY_INFORMATION).size(), 4u) << "taken fast: A and B, pre and post";

    // The fast query of the query-only open refused too: it comes again as an IRP.
    refuseFastQuery = true;
    ClearEvents();
    information = {};
    ASSERT_EQ(QueryFullAttributes(u"\\??\\C:\\refused.txt", &information), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 10);
    const std::vector<Event> again = EventsOf(IRP_MJ_QUERY_INFORMATION);
    ASSERT_EQ(again.size(), 5u) << "A refuses the fast form above B; the IRP then reaches both";
    EXPECT_TRUE(again[0].fastIo());
    for (size_t i = 1; i < again.size(); ++i) {
        EXPECT_FALSE(again[i].fastIo()) << i;
    }
    EXPECT_EQ(MajorsSeenBy('B'), (Majors{IRP_MJ_CREATE, IRP_MJ_QUERY_INFORMATION, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));

    // A missing name fails the query-only open's create: no query, no cleanup.
    ClearEvents();
    EXPECT_EQ(QueryFullAttributes(u"\\??\\C:\\missing.txt", &information), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_NETWORK_QUERY_OPEN, IRP_MJ_CREATE}));
}

TEST_F(NetworkQueryOpenTest, QueryOnlyOpenIsReparsedLikeAnyOpen)
{
    volume_->SeedFile(u"\\source.txt", "short");
    volume_->SeedFile(u"\\target.txt", "the target, longer");
    refuseFastQueryOpen = true;
    // B sends every create of source.txt to target.txt, as a redirecting filter does.
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        PFILE_OBJECT fileObject = data->Iopb->TargetFileObject;
        if (data->Iopb->MajorFunction != IRP_MJ_CREATE || ntsim::ToUtf8(fileObject->FileName) != "\\source.txt") {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        const std::u16string target = u"\\??\\C:\\target.txt";
        const USHORT bytes = static_cast<USHORT>(target.size() * sizeof(WCHAR));
        auto* buffer = static_cast<PWCH>(ExAllocatePool(NonPagedPoolNx, bytes));
        std::memcpy(buffer, target.data(), bytes);
        ExFreePoolWithTag(fileObject->FileName.Buffer, 0);
        fileObject->FileName = {bytes, bytes, buffer};
        data->IoStatus.Status = STATUS_REPARSE;
        data->IoStatus.Information = IO_REPARSE;
        return FLT_PREOP_COMPLETE;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);

    FILE_NETWORK_OPEN_INFORMATION information{};
    ASSERT_EQ(QueryFullAttributes(u"\\??\\C:\\source.txt", &information), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 18) << "the target's attributes";
    ASSERT_EQ(creates.size(), 2u) << "the first parse and the re-parse, both from the top";
    EXPECT_EQ(creates[1].access, ACCESS_MASK{FILE_READ_ATTRIBUTES}) << "the re-parsed open asks for the same";
    const std::vector<Event> createEvents = EventsOf(IRP_MJ_CREATE);
    EXPECT_EQ(createEvents.back().fileName, "\\target.txt");
}

TEST_F(NetworkQueryOpenTest, ReferencingTheStackFileObjectIsAVerifierError)
{
    volume_->SeedFile(u"\\stack.txt", "x");
    static bool referenced;
    referenced = false;
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_NETWORK_QUERY_OPEN) {
            EXPECT_EQ(objects->FileObject, data->Iopb->TargetFileObject);
            ObReferenceObject(objects->FileObject);
            referenced = true;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ntsim::verifier::BugCheckCapture capture;
    FILE_NETWORK_OPEN_INFORMATION information{};
    EXPECT_EQ(QueryFullAttributes(u"\\??\\C:\\stack.txt", &information), STATUS_SUCCESS);
    EXPECT_TRUE(referenced);
    EXPECT_TRUE(capture.Consume("IO_STACK_FILE_OBJECT_REFERENCED"));
    EXPECT_EQ(capture.Count(), 0u);

    // An ordinary file object of the same size is referenced without complaint.
    Opened file = Open(u"\\??\\C:\\stack.txt", FILE_READ_ATTRIBUTES, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file.handle);
    ObReferenceObject(fileObject);
    ObDereferenceObject(fileObject);
    ObDereferenceObject(fileObject);
    NtClose(file.handle);
    EXPECT_EQ(capture.Count(), 0u);
}

TEST_F(NetworkQueryOpenTest, IrpFormIsIssuedAloneAndNeverByTheNativeCall)
{
    volume_->SeedFile(u"\\irp.txt", "1234");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ntsim::UnicodeStringHolder name(u"\\??\\C:\\irp.txt");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    FILE_NETWORK_OPEN_INFORMATION information{};
    ASSERT_EQ(ntsim::IoNetworkQueryOpen(&attributes, &information, false), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 4);
    const std::vector<Event> queryOpens = EventsOf(IRP_MJ_NETWORK_QUERY_OPEN);
    ASSERT_EQ(queryOpens.size(), 2u);
    EXPECT_FALSE(queryOpens[0].fastIo());
    EXPECT_TRUE((queryOpens[0].flags & FLTFL_CALLBACK_DATA_IRP_OPERATION) != 0);

    refuseFastQueryOpen = true;
    ClearEvents();
    EXPECT_EQ(ntsim::IoNetworkQueryOpen(&attributes, &information, true), STATUS_FLT_DISALLOW_FAST_IO);
    EXPECT_EQ(MajorsSeenBy('A'), Majors{IRP_MJ_NETWORK_QUERY_OPEN}) << "no query-only open follows it here";
}

}  // namespace
}  // namespace iotest
