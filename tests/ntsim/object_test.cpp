// The object manager: references, handles, close and delete procedures.
#include <gtest/gtest.h>

#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>
#include <wdm.h>

#include <string>
#include <vector>

namespace {

constexpr ACCESS_MASK kRead = 0x0001;
constexpr ACCESS_MASK kWrite = 0x0002;

// A type whose procedures write what happens to its objects into a journal.
struct Journal {
    std::vector<std::string> events;
    ntsim::ob::ObjectType type{
        u"Widget", GENERIC_MAPPING{kRead, kWrite, 0, kRead | kWrite}, kRead | kWrite,
        [this](void*, PEPROCESS, ULONG remaining) { events.push_back("close " + std::to_string(remaining)); },
        [this](void* object) {
            events.push_back("delete");
            delete static_cast<int*>(object);
        }};
};

TEST(ObjectReferences, LastDereferenceDeletesAnObjectOwnedByItsReferences)
{
    Journal journal;
    auto* widget = new int(7);
    ntsim::ob::RegisterObject(widget, journal.type);
    EXPECT_EQ(ObReferenceObject(widget), 2);
    EXPECT_EQ(ObDereferenceObject(widget), 1);
    EXPECT_TRUE(journal.events.empty());
    EXPECT_EQ(ObDereferenceObject(widget), 0);
    EXPECT_EQ(journal.events, std::vector<std::string>{"delete"});
    EXPECT_EQ(ntsim::ob::TypeOf(widget), nullptr) << "a deleted object is forgotten";
}

TEST(ObjectReferences, UnknownObjectsAndUnderflowAreBugChecks)
{
    ntsim::verifier::BugCheckCapture capture;
    int stranger = 0;
    EXPECT_EQ(ObReferenceObject(&stranger), 0);
    EXPECT_TRUE(capture.Consume(ntsim::ob::rules::kObjectNotKnown));
    EXPECT_EQ(ObDereferenceObject(&stranger), 0);
    EXPECT_TRUE(capture.Consume(ntsim::ob::rules::kObjectNotKnown));

    auto token = ntsim::CreateToken(u"S-1-5-18");  // a shared object with no references
    ObDereferenceObject(token.get());
    EXPECT_TRUE(capture.Consume(ntsim::ob::rules::kObjectReferenceUnderflow));
}

TEST(Handles, CloseProcedureSeesTheRemainingHandlesBeforeTheDelete)
{
    Journal journal;
    auto* widget = new int(1);
    ntsim::ob::RegisterObject(widget, journal.type);
    auto process = ntsim::CreateProcess();
    ntsim::AttachThread attach(process);

    HANDLE first = ntsim::ob::InsertHandle(widget, kRead);
    HANDLE second = ntsim::ob::InsertHandle(widget, kRead | kWrite);
    EXPECT_NE(first, second);
    EXPECT_EQ(ntsim::ob::HandleCount(widget), 2u);
    EXPECT_EQ(ntsim::ob::ReferenceCount(widget), 3);
    ObDereferenceObject(widget);  // the creator's reference: the handles keep it

    EXPECT_EQ(NtClose(first), STATUS_SUCCESS);
    EXPECT_EQ(journal.events, std::vector<std::string>{"close 1"});
    EXPECT_EQ(NtClose(second), STATUS_SUCCESS);
    EXPECT_EQ(journal.events, (std::vector<std::string>{"close 1", "close 0", "delete"}));

    EXPECT_EQ(NtClose(second), STATUS_INVALID_HANDLE) << "a user-mode close of a closed handle just fails";
}

TEST(Handles, AccessTypeAndModeChecks)
{
    Journal journal;
    auto* widget = new int(2);
    ntsim::ob::RegisterObject(widget, journal.type);
    auto process = ntsim::CreateProcess();
    ntsim::AttachThread attach(process);
    HANDLE handle = ntsim::ob::InsertHandle(widget, kRead);
    ObDereferenceObject(widget);

    PVOID object = nullptr;
    OBJECT_HANDLE_INFORMATION information{};
    ASSERT_EQ(ObReferenceObjectByHandle(handle, GENERIC_READ, journal.type.AsObjectType(), UserMode, &object,
                                        &information),
              STATUS_SUCCESS);
    EXPECT_EQ(object, widget);
    EXPECT_EQ(information.GrantedAccess, kRead);
    ObDereferenceObject(object);

    EXPECT_EQ(ObReferenceObjectByHandle(handle, kWrite, nullptr, UserMode, &object, nullptr), STATUS_ACCESS_DENIED);
    ASSERT_EQ(ObReferenceObjectByHandle(handle, kWrite, nullptr, KernelMode, &object, nullptr), STATUS_SUCCESS)
        << "kernel mode skips the access check";
    ObDereferenceObject(object);
    EXPECT_EQ(ObReferenceObjectByHandle(handle, kRead, *PsProcessType, KernelMode, &object, nullptr),
              STATUS_OBJECT_TYPE_MISMATCH);

    {
        auto stranger = ntsim::CreateProcess();
        ntsim::AttachThread elsewhere(stranger);
        EXPECT_EQ(ObReferenceObjectByHandle(handle, kRead, nullptr, KernelMode, &object, nullptr), STATUS_INVALID_HANDLE)
            << "a user handle belongs to its process's table";
    }
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(journal.events.back(), "delete");
}

TEST(Handles, KernelHandlesServeKernelModeInEveryProcess)
{
    Journal journal;
    auto* widget = new int(3);
    ntsim::ob::RegisterObject(widget, journal.type);
    const size_t before = ntsim::ob::KernelHandleCount();
    auto process = ntsim::CreateProcess();
    HANDLE handle = nullptr;
    {
        ntsim::AttachThread attach(process, {.previousMode = KernelMode});
        handle = ntsim::ob::InsertHandle(widget, kRead, OBJ_KERNEL_HANDLE);
    }
    ObDereferenceObject(widget);
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(handle) >> 31, 0x1FFFFFFFFull) << "kernel handles have the high bits set";
    EXPECT_EQ(ntsim::ob::KernelHandleCount(), before + 1);
    EXPECT_EQ(process->HandleCount(), 0u);

    auto other = ntsim::CreateProcess();
    ntsim::AttachThread attach(other);
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, kRead, nullptr, UserMode, &object, nullptr), STATUS_INVALID_HANDLE);
    EXPECT_EQ(NtClose(handle), STATUS_INVALID_HANDLE) << "user mode cannot close a kernel handle";
    ASSERT_EQ(ObReferenceObjectByHandle(handle, kRead, nullptr, KernelMode, &object, nullptr), STATUS_SUCCESS);
    ObDereferenceObject(object);

    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(ntsim::ob::KernelHandleCount(), before);
    ntsim::verifier::BugCheckCapture capture;
    EXPECT_EQ(ZwClose(handle), STATUS_INVALID_HANDLE);
    EXPECT_TRUE(capture.Consume(ntsim::ob::rules::kInvalidKernelHandle)) << "kernel code closing a closed handle";
}

TEST(Handles, TheEndOfAProcessClosesItsHandles)
{
    Journal journal;
    auto* widget = new int(4);
    ntsim::ob::RegisterObject(widget, journal.type);
    {
        auto process = ntsim::CreateProcess();
        ntsim::AttachThread attach(process);
        ntsim::ob::InsertHandle(widget, kRead);
        ObDereferenceObject(widget);
        EXPECT_TRUE(journal.events.empty());
    }
    EXPECT_EQ(journal.events, (std::vector<std::string>{"close 0", "delete"}));
}

}  // namespace
