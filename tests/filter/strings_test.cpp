// The filter's string type, the substring search, the blacklist tokenizer, link paths to device
// paths, and the identity of a request (SID and process image name).
#include <gtest/gtest.h>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>

#include <cstring>
#include <vector>

#include "driver/configuration.h"
#include "driver/identity.h"
#include "driver/mergefolders.h"
#include "driver/ownedstring.h"

namespace {

std::string Text(const UNICODE_STRING* string)
{
    return string == nullptr ? std::string("<null>") : ntsim::ToUtf8(*string);
}

POOL_TYPE PoolTypeOf(const void* address)
{
    for (const auto& allocation : ntsim::pool::LiveAllocations()) {
        if (allocation.address == address) {
            return allocation.type;
        }
    }
    ADD_FAILURE() << "not a live pool block";
    return NonPagedPool;
}

// Frees an OwnedString at the end of a test, whatever the test found.
struct StringGuard {
    OwnedString* pstr = nullptr;
    ~StringGuard() { FreeUnicodeString(&pstr); }
};

TEST(OwnedString, CreateUnicodeStringKeepsItsZeroedRoomBehindTheHeaderInTheChosenPool)
{
    StringGuard empty{CreateUnicodeString(POOL_SELECTOR_PAGED, 0)};
    ASSERT_NE(empty.pstr, nullptr);
    EXPECT_EQ(empty.pstr->Length, 0);
    EXPECT_EQ(empty.pstr->MaximumLength, 0);
    EXPECT_EQ(empty.pstr->Buffer, (PWCH)(empty.pstr + 1));
    EXPECT_EQ(PoolTypeOf(empty.pstr), PagedPool);

    StringGuard room{CreateUnicodeString(POOL_SELECTOR_NONPAGED, 10)};
    ASSERT_NE(room.pstr, nullptr);
    EXPECT_EQ(room.pstr->MaximumLength, 10);
    EXPECT_EQ(room.pstr->Buffer, (PWCH)(room.pstr + 1));
    const UCHAR* bytes = (const UCHAR*)room.pstr->Buffer;
    EXPECT_EQ(std::vector<UCHAR>(bytes, bytes + 10), std::vector<UCHAR>(10, 0));
    EXPECT_EQ(PoolTypeOf(room.pstr), g_PoolType);
    EXPECT_EQ(ntsim::pool::TagText(FOLDERMERGE_POOL_TAG), "VLMR");
}

TEST(OwnedString, TextAndCopiesHoldExactlyTheirCharacters)
{
    StringGuard text{CreateUnicodeStringFromText(L"abc")};
    ASSERT_NE(text.pstr, nullptr);
    EXPECT_EQ(text.pstr->Length, 6);
    EXPECT_EQ(text.pstr->MaximumLength, 6);
    EXPECT_EQ(Text(text.pstr), "abc");

    StringGuard emptyText{CreateUnicodeStringFromText(L"")};
    ASSERT_NE(emptyText.pstr, nullptr);
    EXPECT_EQ(emptyText.pstr->Length, 0);

    // A source with stale characters behind its Length: the copy keeps the spare room, zeroed.
    char16_t source[] = u"abcXYZ";
    UNICODE_STRING counted{6, 12, (PWCH)source};
    StringGuard copy{CopyUnicodeString(&counted)};
    ASSERT_NE(copy.pstr, nullptr);
    EXPECT_EQ(copy.pstr->Length, 6);
    EXPECT_EQ(copy.pstr->MaximumLength, 12);
    EXPECT_EQ(Text(copy.pstr), "abc");
    EXPECT_EQ(copy.pstr->Buffer[3], 0);
    EXPECT_EQ(copy.pstr->Buffer[5], 0);
}

TEST(OwnedString, AllocationFailuresGiveNullAndLeaveNothing)
{
    ntsim::pool::Checkpoint checkpoint(FOLDERMERGE_POOL_TAG);
    ntsim::faults::FailAllocationsWithTag(FOLDERMERGE_POOL_TAG);
    EXPECT_EQ(CreateUnicodeString(POOL_SELECTOR_PAGED, 8), nullptr);
    EXPECT_EQ(CreateUnicodeStringFromText(L"abc"), nullptr);
    ntsim::UnicodeStringHolder source(u"abc");
    EXPECT_EQ(CopyUnicodeString(source.get()), nullptr);
    ntsim::faults::Reset();
    EXPECT_TRUE(checkpoint.Verify("failed string allocations"));

    PVOID pBuffer = AllocateBuffer(POOL_SELECTOR_PAGED, 32);
    ASSERT_NE(pBuffer, nullptr);
    FreeBufferAndClear(&pBuffer);
    EXPECT_EQ(pBuffer, nullptr);
    EXPECT_TRUE(checkpoint.Verify("buffer freed and cleared"));
}

TEST(FindUnicodeSubstring, FindsTheFirstOccurrenceByCharacterIndex)
{
    ntsim::UnicodeStringHolder haystack(u"\\Data\\vm_Redirected\\x");
    auto find = [&](std::u16string_view text, BOOLEAN ignoreCase = FALSE) {
        ntsim::UnicodeStringHolder needle(text);
        return FindUnicodeSubstring(haystack.get(), needle.get(), ignoreCase);
    };
    EXPECT_EQ(find(u"\\Data\\vm_Redirected\\x"), 0);
    EXPECT_EQ(find(u"vm_Redirected"), 6);
    EXPECT_EQ(find(u"vm_redirected"), -1);
    EXPECT_EQ(find(u"vm_redirected", TRUE), 6);
    EXPECT_EQ(find(u"\\x"), 19);
    EXPECT_EQ(find(u"\\"), 0);
    EXPECT_EQ(find(u"\\Data\\vm_Redirected\\xy"), -1);
    EXPECT_EQ(find(u""), -1);
    ntsim::UnicodeStringHolder backslash(u"\\");
    ntsim::UnicodeStringHolder noBuffer;
    EXPECT_EQ(FindUnicodeSubstring(haystack.get(), noBuffer.get(), FALSE), -1);
    EXPECT_EQ(FindUnicodeSubstring(noBuffer.get(), backslash.get(), FALSE), -1);
    EXPECT_EQ(FindUnicodeSubstring(nullptr, backslash.get(), FALSE), -1);
}

TEST(StringContainsCharacter, LooksAtEveryCharacterOfTheLengthAndNoFurther)
{
    char16_t text[] = u"~ab:c~";
    UNICODE_STRING whole{12, 12, (PWCH)text};
    EXPECT_TRUE(StringContainsCharacter(&whole, L'~'));
    EXPECT_TRUE(StringContainsCharacter(&whole, L':'));
    EXPECT_FALSE(StringContainsCharacter(&whole, L'\\'));
    // The middle of it: the tildes at both ends lie outside, the colon inside.
    UNICODE_STRING middle{8, 10, (PWCH)(text + 1)};
    EXPECT_FALSE(StringContainsCharacter(&middle, L'~'));
    EXPECT_TRUE(StringContainsCharacter(&middle, L':'));
    UNICODE_STRING empty{0, 12, (PWCH)text};
    EXPECT_FALSE(StringContainsCharacter(&empty, L'~'));
    UNICODE_STRING noBuffer{4, 4, nullptr};
    EXPECT_FALSE(StringContainsCharacter(&noBuffer, L'~'));
}

class LinkPaths : public ::testing::Test {
protected:
    ntsim::ob::SymbolicLink drive_ = ntsim::ob::CreateSymbolicLink(u"\\??\\Q:", u"\\Device\\HarddiskVolume7");
    ntsim::ob::SymbolicLink substitute_ = ntsim::ob::CreateSymbolicLink(u"\\??\\S:", u"\\??\\Q:\\sub");
    ntsim::pool::Checkpoint checkpoint_{FOLDERMERGE_POOL_TAG};

    void TearDown() override { EXPECT_TRUE(checkpoint_.Verify("link path conversion")); }

    // DevicePathFromRenameInformation on a FILE_RENAME_INFORMATION holding name.
    NTSTATUS FromRename(std::u16string_view name, std::string* result)
    {
        std::vector<UCHAR> buffer(sizeof(FILE_RENAME_INFORMATION) + name.size() * 2);
        auto* rename = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
        rename->FileNameLength = static_cast<ULONG>(name.size() * 2);
        std::memcpy(rename->FileName, name.data(), name.size() * 2);
        OwnedString* pstr = nullptr;
        NTSTATUS status = DevicePathFromRenameInformation(rename, &pstr);
        *result = pstr != nullptr ? Text(pstr) : "<none>";
        FreeUnicodeString(&pstr);
        return status;
    }
};

TEST_F(LinkPaths, DriveLinksAndSubstitutionsBecomeDevicePaths)
{
    ntsim::UnicodeStringHolder link(u"\\??\\Q:\\dir\\file");
    OwnedString* pstr = nullptr;
    ASSERT_EQ(LinkToDevicePath(link.get(), &pstr), STATUS_SUCCESS);
    EXPECT_EQ(Text(pstr), "\\Device\\HarddiskVolume7\\dir\\file");
    EXPECT_EQ(PoolTypeOf(pstr), PagedPool);
    FreeUnicodeString(&pstr);

    using Case = std::pair<std::u16string_view, std::string>;
    for (auto [name, device] : {Case{u"\\??\\q:\\dir\\file", "\\Device\\HarddiskVolume7\\dir\\file"},
                                {u"\\??\\S:\\x", "\\Device\\HarddiskVolume7\\sub\\x"},
                                {u"\\Device\\HarddiskVolume2\\x", "\\Device\\HarddiskVolume2\\x"},
                                {u"\\??\\Q:", "\\Device\\HarddiskVolume7"}}) {
        std::string result;
        EXPECT_EQ(FromRename(name, &result), STATUS_SUCCESS) << device;
        EXPECT_EQ(result, device);
    }
}

TEST_F(LinkPaths, NamesWithoutADriveLinkFailWithoutAResult)
{
    // Too short for \??\ and a drive, nothing is read past the name; \??\UN is no link, the object
    // manager's answer is the result.
    for (auto [name, expected] : {std::pair<std::u16string_view, NTSTATUS>{u"Q:\\x", STATUS_INVALID_PARAMETER},
                                  {u"x", STATUS_INVALID_PARAMETER}, {u"\\??\\", STATUS_INVALID_PARAMETER},
                                  {u"\\??\\Q", STATUS_INVALID_PARAMETER},
                                  {u"\\??\\UNC\\server\\share\\x", STATUS_OBJECT_NAME_NOT_FOUND}}) {
        std::string result;
        EXPECT_EQ(FromRename(name, &result), expected) << ntsim::ToUtf8(name);
        EXPECT_EQ(result, "<none>") << ntsim::ToUtf8(name);
    }

    ntsim::UnicodeStringHolder link(u"\\??\\Q:\\x");
    OwnedString* pstr = nullptr;
    ntsim::faults::FailRoutine("ZwOpenSymbolicLinkObject", STATUS_ACCESS_DENIED);
    EXPECT_EQ(LinkToDevicePath(link.get(), &pstr), STATUS_ACCESS_DENIED);
    EXPECT_EQ(pstr, nullptr);
    ntsim::faults::FailRoutine("ZwQuerySymbolicLinkObject", STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(DeviceNameFromSymbolicLink(link.get(), &pstr), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(pstr, nullptr);
}

TEST_F(LinkPaths, EveryFailedAllocationIsReportedAndLeavesNothing)
{
    ntsim::UnicodeStringHolder link(u"\\??\\S:\\dir\\file");
    for (uint64_t point = 1;; point++) {
        ntsim::faults::Reset();
        ntsim::faults::FailNthAllocation(point);
        OwnedString* pstr = nullptr;
        NTSTATUS status = LinkToDevicePath(link.get(), &pstr);
        bool injected = ntsim::faults::FailuresInjected() != 0;
        if (!injected) {
            ASSERT_EQ(status, STATUS_SUCCESS);
            EXPECT_EQ(Text(pstr), "\\??\\Q:\\sub\\dir\\file");
            FreeUnicodeString(&pstr);
            break;
        }
        EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << "allocation " << point;
        EXPECT_EQ(pstr, nullptr) << "allocation " << point;
    }
}

class RequestIdentity : public ::testing::Test {
protected:
    std::shared_ptr<ntsim::Process> process_ = ntsim::CreateProcess(
        {.imageFileName = u"\\Device\\HarddiskVolume2\\Apps\\tool.exe", .userSid = u"S-1-5-21-1-2-3-1001"});
    std::shared_ptr<ntsim::Token> client_ = ntsim::CreateToken(u"S-1-5-21-1-2-3-1002", TokenImpersonation);
    ntsim::pool::Checkpoint checkpoint_{FOLDERMERGE_POOL_TAG};

    void TearDown() override { EXPECT_TRUE(checkpoint_.Verify("request identity")); }

    std::string Sid(PIO_SECURITY_CONTEXT context, NTSTATUS expected = STATUS_SUCCESS)
    {
        OwnedString* pstr = nullptr;
        NTSTATUS status = GetRequestSid(context, &pstr);
        EXPECT_EQ(status, expected);
        std::string text = pstr != nullptr ? Text(pstr) : "<none>";
        FreeUnicodeString(&pstr);
        return text;
    }
};

TEST_F(RequestIdentity, TheClientTokenCountsBeforeThePrimaryToken)
{
    ntsim::AttachThread thread(process_);
    EXPECT_EQ(Sid(nullptr), "S-1-5-21-1-2-3-1001");
    {
        ntsim::ScopedImpersonation impersonation(client_);
        EXPECT_EQ(Sid(nullptr), "S-1-5-21-1-2-3-1002");
    }

    // A create's own security context is used as it stands, whoever runs.
    ACCESS_STATE accessState{};
    IO_SECURITY_CONTEXT context{};
    context.AccessState = &accessState;
    accessState.SubjectSecurityContext.PrimaryToken = process_->PrimaryToken()->AsAccessToken();
    EXPECT_EQ(Sid(&context), "S-1-5-21-1-2-3-1001");
    accessState.SubjectSecurityContext.ClientToken = client_->AsAccessToken();
    EXPECT_EQ(Sid(&context), "S-1-5-21-1-2-3-1002");

    accessState.SubjectSecurityContext = {};
    EXPECT_EQ(Sid(&context, STATUS_INVALID_PARAMETER), "<none>");
    context.AccessState = nullptr;
    EXPECT_EQ(Sid(&context, STATUS_INVALID_PARAMETER), "<none>");

    // A failed copy of the SID is a failure, not an empty success.
    ntsim::faults::FailAllocationsWithTag(FOLDERMERGE_POOL_TAG);
    EXPECT_EQ(Sid(nullptr, STATUS_INSUFFICIENT_RESOURCES), "<none>");
}

TEST_F(RequestIdentity, TheLongestSidTextComesWholeWithRoomForItsTerminator)
{
    // An authority written in hexadecimal and fifteen sub-authorities of ten digits each.
    std::u16string longest = u"S-1-0x123456789ABC";
    for (int index = 0; index < SID_MAX_SUB_AUTHORITIES; index++) {
        longest += u"-4294967295";
    }
    auto process = ntsim::CreateProcess({.userSid = longest});
    ntsim::AttachThread thread(process);
    OwnedString* pstr = nullptr;
    ASSERT_EQ(GetRequestSid(nullptr, &pstr), STATUS_SUCCESS);
    StringGuard sid{pstr};
    EXPECT_EQ(Text(sid.pstr), ntsim::ToUtf8(longest));
    EXPECT_EQ(sid.pstr->MaximumLength, sid.pstr->Length + sizeof(WCHAR));
    EXPECT_EQ(sid.pstr->Buffer[sid.pstr->Length / sizeof(WCHAR)], 0);
    EXPECT_EQ(PoolTypeOf(sid.pstr), g_PoolType);
}

TEST_F(RequestIdentity, TheImageNameComesInDeviceFormAndMustFitItsString)
{
    ntsim::AttachThread thread(process_);
    StringGuard name{CreateUnicodeString(POOL_SELECTOR_PAGED, 260)};
    ASSERT_EQ(GetProcessImageName(name.pstr), STATUS_SUCCESS);
    EXPECT_EQ(Text(name.pstr), "\\Device\\HarddiskVolume2\\Apps\\tool.exe");

    // 140 characters and the terminator don't fit 260 bytes: the string is left as it was.
    auto longImage = ntsim::CreateProcess(
        {.imageFileName = u"\\Device\\HarddiskVolume2\\" + std::u16string(107, u'x') + u"\\tool.exe"});
    ntsim::AttachThread longThread(longImage);
    StringGuard small{CreateUnicodeString(POOL_SELECTOR_PAGED, 260)};
    EXPECT_EQ(GetProcessImageName(small.pstr), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(small.pstr->Length, 0);
}

}  // namespace
