#pragma once

#include <array>
#include <cstddef>

#include <windows.h>

#include <aclapi.h>

#include <Utils/platform/win32/kyHandle.h>

/// Whom this process trusts: its own user, the administrators of the machine and the system itself.
namespace kyTrust {

/// What the system says of the one who runs a process: a record, and the account it points to.
template <class Record> struct TokenInformation
{
    alignas(Record) std::array<std::byte, sizeof(Record) + SECURITY_MAX_SID_SIZE> bytes;
    bool isKnown = false;

    TokenInformation(HANDLE process, TOKEN_INFORMATION_CLASS kind)
    {
        HANDLE opened = nullptr;
        ::OpenProcessToken(process, TOKEN_QUERY, &opened);
        const kyHandle token(opened);
        DWORD size = 0;
        isKnown = ::GetTokenInformation(token.get(), kind, bytes.data(),
                                        static_cast<DWORD>(bytes.size()), &size) != FALSE;
    }

    const Record& get() const { return *reinterpret_cast<const Record*>(bytes.data()); }
};

/// The account itself, and the one that owns what its processes make: of an administrator that is
/// the whole group.
inline bool isOwn(PSID account)
{
    const TokenInformation<TOKEN_USER> user(::GetCurrentProcess(), TokenUser);
    const TokenInformation<TOKEN_OWNER> owner(::GetCurrentProcess(), TokenOwner);
    return (user.isKnown && ::EqualSid(account, user.get().User.Sid) != FALSE) ||
           (owner.isKnown && ::EqualSid(account, owner.get().Owner) != FALSE);
}

inline bool isTrusted(PSID account)
{
    return ::IsWellKnownSid(account, WinLocalSystemSid) != FALSE ||
           ::IsWellKnownSid(account, WinBuiltinAdministratorsSid) != FALSE || isOwn(account);
}

/// Whether a trusted account runs the process; false if the system does not say.
inline bool isTrustedProcess(const kyHandle& process)
{
    const TokenInformation<TOKEN_OWNER> owner(process.get(), TokenOwner);
    return owner.isKnown && isTrusted(owner.get().Owner);
}

} // namespace kyTrust
