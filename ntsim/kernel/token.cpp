// Access tokens and subject contexts.
#include <ntsim/ex.h>
#include <ntsim/ob.h>
#include <ntsim/se.h>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "ob_internal.hpp"

namespace ntsim {

namespace ob {

const ObjectType& TokenType()
{
    static const ObjectType& type =
        *new ObjectType(u"Token", GENERIC_MAPPING{0x00020008, 0x000200E0, 0x00020000, 0x000F01FF}, 0x000F01FF);
    return type;
}

}  // namespace ob

Token::Token(std::vector<UCHAR> sid, TOKEN_TYPE type, SECURITY_IMPERSONATION_LEVEL level)
    : sid_(std::move(sid)), type_(type), level_(level)
{
}

Token::~Token()
{
    ob::UnregisterSharedObject(this);
}

std::shared_ptr<Token> CreateToken(std::u16string_view sidText, TOKEN_TYPE type, SECURITY_IMPERSONATION_LEVEL level)
{
    auto token = std::make_shared<Token>(SidFromText(sidText), type, level);
    ob::RegisterSharedObject(token->AsAccessToken(), ob::TokenType(), token);
    return token;
}

Token* TokenFromAccessToken(PACCESS_TOKEN token)
{
    if (token == nullptr || ob::TypeOf(token) != &ob::TokenType()) {
        char detail[80];
        std::snprintf(detail, sizeof(detail), "%p is no access token", token);
        verifier::BugCheck(ob::rules::kObjectNotKnown, detail);
        return nullptr;
    }
    return static_cast<Token*>(token);
}

}  // namespace ntsim

namespace {

POBJECT_TYPE tokenObjectType = ntsim::ob::TokenType().AsObjectType();

// A paged-pool copy of size bytes for SeQueryInformationToken's caller.
NTSTATUS CopyToPool(const void* data, size_t size, PVOID* information)
{
    void* copy = ExAllocatePoolWithTag(PagedPool, size, ntsim::ob::internal::kTokenInformationTag);
    if (copy == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::memcpy(copy, data, size);
    *information = copy;
    return STATUS_SUCCESS;
}

}  // namespace

extern "C" {

POBJECT_TYPE* SeTokenObjectType = &tokenObjectType;

VOID SeCaptureSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext)
{
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "SeCaptureSubjectContext");
    std::shared_ptr<ntsim::Token> client = ntsim::CurrentImpersonationToken();
    ntsim::Process& process = ntsim::CurrentProcess();
    SubjectContext->ClientToken = nullptr;
    SubjectContext->ImpersonationLevel = SecurityAnonymous;
    if (client) {
        SubjectContext->ClientToken = client->AsAccessToken();
        SubjectContext->ImpersonationLevel = client->ImpersonationLevel();
        ObfReferenceObject(SubjectContext->ClientToken);
    }
    SubjectContext->PrimaryToken = process.PrimaryToken()->AsAccessToken();
    ObfReferenceObject(SubjectContext->PrimaryToken);
    SubjectContext->ProcessAuditId = process.AsEprocess();
}

VOID SeReleaseSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext)
{
    if (SubjectContext->ClientToken != nullptr) {
        ObfDereferenceObject(SubjectContext->ClientToken);
        SubjectContext->ClientToken = nullptr;
    }
    if (SubjectContext->PrimaryToken != nullptr) {
        ObfDereferenceObject(SubjectContext->PrimaryToken);
        SubjectContext->PrimaryToken = nullptr;
    }
}

PACCESS_TOKEN SeQuerySubjectContextToken(PSECURITY_SUBJECT_CONTEXT SubjectContext)
{
    return SubjectContext->ClientToken != nullptr ? SubjectContext->ClientToken : SubjectContext->PrimaryToken;
}

NTSTATUS SeQueryInformationToken(PACCESS_TOKEN Token, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                 PVOID* TokenInformation)
{
    if (auto failure = ntsim::faults::Check("SeQueryInformationToken")) {
        return *failure;
    }
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "SeQueryInformationToken");
    ntsim::Token* token = ntsim::TokenFromAccessToken(Token);
    if (token == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    switch (TokenInformationClass) {
    case TokenUser: {
        // The SID follows the record in the same block, so that one free releases both.
        auto* user = static_cast<PTOKEN_USER>(ExAllocatePoolWithTag(
            PagedPool, sizeof(TOKEN_USER) + token->UserSidLength(), ntsim::ob::internal::kTokenInformationTag));
        if (user == nullptr) {
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        std::memcpy(user + 1, token->UserSid(), token->UserSidLength());
        user->User.Sid = user + 1;
        user->User.Attributes = 0;
        *TokenInformation = user;
        return STATUS_SUCCESS;
    }
    case TokenType: {
        const TOKEN_TYPE type = token->Type();
        return CopyToPool(&type, sizeof(type), TokenInformation);
    }
    case TokenImpersonationLevel: {
        if (token->Type() != TokenImpersonation) {
            return STATUS_INVALID_INFO_CLASS;
        }
        const SECURITY_IMPERSONATION_LEVEL level = token->ImpersonationLevel();
        return CopyToPool(&level, sizeof(level), TokenInformation);
    }
    default:
        return ntsim::verifier::NotImplemented("SeQueryInformationToken(class " +
                                               std::to_string(TokenInformationClass) + ")");
    }
}

}  // extern "C"
