// Tokens and subject contexts: which token a capture yields, references, token information.
#include <gtest/gtest.h>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>
#include <wdm.h>

namespace {

constexpr char16_t kUser[] = u"S-1-5-21-1-2-3-1001";
constexpr char16_t kClient[] = u"S-1-5-21-1-2-3-2002";

// The SID text of a token's user, read through the driver's routines.
std::string UserOf(PACCESS_TOKEN token)
{
    PVOID information = nullptr;
    NTSTATUS status = SeQueryInformationToken(token, TokenUser, &information);
    EXPECT_EQ(status, STATUS_SUCCESS);
    if (!NT_SUCCESS(status)) {
        return "<failed>";
    }
    auto* user = static_cast<PTOKEN_USER>(information);
    UNICODE_STRING text{};
    EXPECT_EQ(RtlConvertSidToUnicodeString(&text, user->User.Sid, TRUE), STATUS_SUCCESS);
    std::string result = ntsim::ToUtf8(text);
    RtlFreeUnicodeString(&text);
    ExFreePoolWithTag(information, 0);
    return result;
}

TEST(SubjectContext, ImpersonationTokenComesBeforeThePrimaryToken)
{
    auto process = ntsim::CreateProcess({.userSid = kUser});
    ntsim::AttachThread attach(process);

    SECURITY_SUBJECT_CONTEXT plain{};
    SeCaptureSubjectContext(&plain);
    EXPECT_EQ(plain.ClientToken, nullptr);
    EXPECT_EQ(plain.PrimaryToken, process->PrimaryToken()->AsAccessToken());
    EXPECT_EQ(UserOf(SeQuerySubjectContextToken(&plain)), "S-1-5-21-1-2-3-1001");
    SeReleaseSubjectContext(&plain);

    auto client = ntsim::CreateToken(kClient, TokenImpersonation, SecurityDelegation);
    ntsim::ScopedImpersonation impersonate(client);
    SECURITY_SUBJECT_CONTEXT impersonating{};
    SeCaptureSubjectContext(&impersonating);
    EXPECT_EQ(impersonating.ClientToken, client->AsAccessToken());
    EXPECT_EQ(impersonating.ImpersonationLevel, SecurityDelegation);
    EXPECT_EQ(UserOf(impersonating.PrimaryToken), "S-1-5-21-1-2-3-1001");
    EXPECT_EQ(UserOf(SeQuerySubjectContextToken(&impersonating)), "S-1-5-21-1-2-3-2002");
    EXPECT_EQ(impersonating.ProcessAuditId, process->AsEprocess());
    SeReleaseSubjectContext(&impersonating);
    EXPECT_EQ(impersonating.ClientToken, nullptr);
    EXPECT_EQ(impersonating.PrimaryToken, nullptr);
}

TEST(SubjectContext, CapturedTokensLiveUntilRelease)
{
    auto process = ntsim::CreateProcess({.userSid = kUser});
    ntsim::AttachThread attach(process);
    std::weak_ptr<ntsim::Token> watch;
    SECURITY_SUBJECT_CONTEXT context{};
    {
        auto client = ntsim::CreateToken(kClient, TokenImpersonation);
        watch = client;
        ntsim::ScopedImpersonation impersonate(client);
        SeCaptureSubjectContext(&context);
        EXPECT_EQ(ntsim::ob::ReferenceCount(client.get()), 1);
    }
    // The thread no longer impersonates and nobody else holds the token: the capture keeps it.
    ASSERT_FALSE(watch.expired());
    EXPECT_EQ(UserOf(context.ClientToken), "S-1-5-21-1-2-3-2002");
    SeReleaseSubjectContext(&context);
    EXPECT_TRUE(watch.expired());
}

TEST(SubjectContext, UnattachedThreadIsTheSystemAccount)
{
    SECURITY_SUBJECT_CONTEXT context{};
    SeCaptureSubjectContext(&context);
    EXPECT_EQ(context.ClientToken, nullptr);
    EXPECT_EQ(UserOf(context.PrimaryToken), "S-1-5-18");
    SeReleaseSubjectContext(&context);
}

TEST(TokenInformation, UserSidSharesOneBlockThatAnUntaggedFreeReleases)
{
    auto token = ntsim::CreateToken(kUser);
    PVOID information = nullptr;
    ASSERT_EQ(SeQueryInformationToken(token->AsAccessToken(), TokenUser, &information), STATUS_SUCCESS);
    auto* user = static_cast<PTOKEN_USER>(information);
    EXPECT_EQ(user->User.Sid, static_cast<PVOID>(user + 1)) << "the SID follows the record in the same block";
    EXPECT_TRUE(RtlEqualSid(user->User.Sid, token->UserSid()));
    ExFreePoolWithTag(information, 0);
}

TEST(TokenInformation, ClassesAndFailures)
{
    auto primary = ntsim::CreateToken(kUser);
    auto client = ntsim::CreateToken(kClient, TokenImpersonation, SecurityIdentification);
    PVOID information = nullptr;

    ASSERT_EQ(SeQueryInformationToken(client->AsAccessToken(), TokenImpersonationLevel, &information), STATUS_SUCCESS);
    EXPECT_EQ(*static_cast<SECURITY_IMPERSONATION_LEVEL*>(information), SecurityIdentification);
    ExFreePool(information);
    EXPECT_EQ(SeQueryInformationToken(primary->AsAccessToken(), TokenImpersonationLevel, &information),
              STATUS_INVALID_INFO_CLASS);

    ntsim::faults::FailRoutine("SeQueryInformationToken", STATUS_ACCESS_DENIED);
    EXPECT_EQ(SeQueryInformationToken(primary->AsAccessToken(), TokenUser, &information), STATUS_ACCESS_DENIED);
    ntsim::faults::FailNthAllocation(1);
    EXPECT_EQ(SeQueryInformationToken(primary->AsAccessToken(), TokenUser, &information),
              STATUS_INSUFFICIENT_RESOURCES);

    int notAToken = 0;
    ntsim::verifier::BugCheckCapture capture;
    EXPECT_EQ(SeQueryInformationToken(&notAToken, TokenUser, &information), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(capture.Consume(ntsim::ob::rules::kObjectNotKnown));
    EXPECT_EQ(SeQueryInformationToken(primary->AsAccessToken(), TokenGroups, &information), STATUS_NOT_IMPLEMENTED);
    EXPECT_TRUE(capture.Consume(ntsim::verifier::rules::kNotImplemented));
}

}  // namespace
