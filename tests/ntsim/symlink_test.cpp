// Symbolic links: opening and querying them as a driver does, and resolving \??\ paths.
#include <gtest/gtest.h>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>
#include <wdm.h>

#include <atomic>
#include <string>
#include <vector>

#include <ntsim/sim/process.hpp>

namespace {

class SymbolicLinks : public ::testing::Test {
protected:
    ntsim::ob::SymbolicLink drive_ = ntsim::ob::CreateSymbolicLink(u"\\??\\C:", u"\\Device\\HarddiskVolume2");
    ntsim::ob::SymbolicLink substitution_ = ntsim::ob::CreateSymbolicLink(u"\\??\\S:", u"\\??\\C:\\sub");
    size_t kernelHandles_ = ntsim::ob::KernelHandleCount();

    void TearDown() override { EXPECT_EQ(ntsim::ob::KernelHandleCount(), kernelHandles_) << "a handle leaked"; }

    static NTSTATUS Open(const char* name, HANDLE* handle)
    {
        ntsim::UnicodeStringHolder text(name);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, text.get(), OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        return ZwOpenSymbolicLinkObject(handle, SYMBOLIC_LINK_QUERY, &attributes);
    }

    // The target as the driver reads it, or the failure's status in text.
    static std::string Target(const char* name)
    {
        HANDLE handle = nullptr;
        NTSTATUS status = Open(name, &handle);
        if (!NT_SUCCESS(status)) {
            return "open failed " + std::to_string(static_cast<ULONG>(status));
        }
        auto target = ntsim::UnicodeStringHolder::WithCapacity(4080);
        status = ZwQuerySymbolicLinkObject(handle, target.get(), nullptr);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        return NT_SUCCESS(status) ? target.utf8() : "query failed " + std::to_string(static_cast<ULONG>(status));
    }

    static std::string Resolve(std::u16string_view path)
    {
        std::u16string resolved;
        NTSTATUS status = ntsim::ob::ResolveSymbolicLinks(path, &resolved);
        return NT_SUCCESS(status) ? ntsim::ToUtf8(resolved) : "failed " + std::to_string(static_cast<ULONG>(status));
    }
};

TEST_F(SymbolicLinks, DriveLinksAndSubstitutionsByNameWithoutRegardToCase)
{
    EXPECT_EQ(Target("\\??\\C:"), "\\Device\\HarddiskVolume2");
    EXPECT_EQ(Target("\\??\\c:"), "\\Device\\HarddiskVolume2");
    EXPECT_EQ(Target("\\??\\S:"), "\\??\\C:\\sub") << "a substitution's target is itself a \\??\\ path";
}

TEST_F(SymbolicLinks, NamesThatAreNoLink)
{
    HANDLE handle = nullptr;
    EXPECT_EQ(Open("\\??\\Q:", &handle), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open("\\??\\UN", &handle), STATUS_OBJECT_NAME_NOT_FOUND) << "the first six characters of \\??\\UNC\\...";
    EXPECT_EQ(Open("\\Nowhere\\C:", &handle), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open("C:", &handle), STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(handle, nullptr);
}

TEST_F(SymbolicLinks, QueryLengthRules)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open("\\??\\C:", &handle), STATUS_SUCCESS);
    const ULONG textBytes = sizeof(u"\\Device\\HarddiskVolume2") - sizeof(char16_t);

    auto small = ntsim::UnicodeStringHolder::WithCapacity(static_cast<USHORT>(textBytes + 1));
    ULONG returned = 0;
    EXPECT_EQ(ZwQuerySymbolicLinkObject(handle, small.get(), &returned), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(returned, textBytes + 2) << "the size needed, terminator included";
    EXPECT_EQ(small->Length, 0);

    auto exact = ntsim::UnicodeStringHolder::WithCapacity(static_cast<USHORT>(textBytes + 2));
    returned = 0;
    ASSERT_EQ(ZwQuerySymbolicLinkObject(handle, exact.get(), &returned), STATUS_SUCCESS);
    EXPECT_EQ(exact->Length, textBytes);
    EXPECT_EQ(exact->Buffer[textBytes / 2], 0);
    EXPECT_EQ(returned, textBytes + 2);
    EXPECT_EQ(exact.utf8(), "\\Device\\HarddiskVolume2");
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
}

TEST_F(SymbolicLinks, AnOpenHandleKeepsARemovedLink)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(Open("\\??\\S:", &handle), STATUS_SUCCESS);
    substitution_.Remove();
    EXPECT_EQ(Target("\\??\\S:"), "open failed " + std::to_string(static_cast<ULONG>(STATUS_OBJECT_NAME_NOT_FOUND)));
    auto target = ntsim::UnicodeStringHolder::WithCapacity(200);
    EXPECT_EQ(ZwQuerySymbolicLinkObject(handle, target.get(), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(target.utf8(), "\\??\\C:\\sub");
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_THROW((void)ntsim::ob::CreateSymbolicLink(u"\\??\\c:", u"\\Device\\Other"), std::invalid_argument)
        << "a name in use, in another case";
}

TEST_F(SymbolicLinks, InjectedFailuresLeaveNoHandle)
{
    HANDLE handle = nullptr;
    ntsim::faults::FailRoutine("ZwOpenSymbolicLinkObject", STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open("\\??\\C:", &handle), STATUS_ACCESS_DENIED);
    ntsim::faults::FailRoutine("ZwQuerySymbolicLinkObject", STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Target("\\??\\C:"), "query failed " + std::to_string(static_cast<ULONG>(STATUS_INSUFFICIENT_RESOURCES)));
}

TEST_F(SymbolicLinks, ResolvingPathsThroughLinks)
{
    EXPECT_EQ(Resolve(u"\\??\\C:\\dir\\file.txt"), "\\Device\\HarddiskVolume2\\dir\\file.txt");
    EXPECT_EQ(Resolve(u"\\??\\c:\\Dir"), "\\Device\\HarddiskVolume2\\Dir") << "the rest keeps its case";
    EXPECT_EQ(Resolve(u"\\??\\C:"), "\\Device\\HarddiskVolume2");
    EXPECT_EQ(Resolve(u"\\??\\S:\\x"), "\\Device\\HarddiskVolume2\\sub\\x");
    EXPECT_EQ(Resolve(u"\\Device\\HarddiskVolume2\\a"), "\\Device\\HarddiskVolume2\\a");
    EXPECT_EQ(Resolve(u"\\??\\Q:\\x"), "failed " + std::to_string(static_cast<ULONG>(STATUS_OBJECT_PATH_NOT_FOUND)));
    EXPECT_EQ(Resolve(u"\\??\\C:x"), "failed " + std::to_string(static_cast<ULONG>(STATUS_OBJECT_NAME_NOT_FOUND)))
        << "only whole components name a link";
    EXPECT_EQ(Resolve(u"C:\\x"), "failed " + std::to_string(static_cast<ULONG>(STATUS_OBJECT_PATH_SYNTAX_BAD)));

    auto loopA = ntsim::ob::CreateSymbolicLink(u"\\??\\L:", u"\\??\\M:\\a");
    auto loopB = ntsim::ob::CreateSymbolicLink(u"\\??\\M:", u"\\??\\L:\\b");
    EXPECT_EQ(Resolve(u"\\??\\L:\\x"),
              "failed " + std::to_string(static_cast<ULONG>(STATUS_REPARSE_POINT_NOT_RESOLVED)));
}

TEST_F(SymbolicLinks, ConcurrentOpensQueriesAndClosesFromManyProcesses)
{
    std::atomic<int> failures{0};
    {
        std::vector<std::unique_ptr<ntsim::SimulatedThread>> threads;
        for (int t = 0; t < 4; ++t) {
            threads.push_back(std::make_unique<ntsim::SimulatedThread>(
                ntsim::CreateProcess(),
                [&failures] {
                    for (int i = 0; i < 300; ++i) {
                        if (Target(i % 2 ? "\\??\\C:" : "\\??\\S:").rfind("\\", 0) != 0 ||
                            Resolve(u"\\??\\S:\\f") != "\\Device\\HarddiskVolume2\\sub\\f") {
                            ++failures;
                        }
                    }
                },
                ntsim::ThreadOptions{.previousMode = KernelMode}));
        }
    }
    EXPECT_EQ(failures.load(), 0);
}

}  // namespace
