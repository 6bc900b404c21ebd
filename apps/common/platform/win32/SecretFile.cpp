#include <apps/common/platform/SecretFile.h>

#include <memory>

#include <QString>
#include <windows.h>

#include <aclapi.h>

#include <NetBase/buffers/kyNetError.h>
#include <Utils/platform/win32/kyHandle.h>
#include <Utils/platform/win32/kyTrust.h>

namespace {

/// Who owns a file, and what others may do with it; as the system tells it.
struct Security
{
    PSID owner = nullptr;
    PACL rights = nullptr;
    std::unique_ptr<void, decltype(&::LocalFree)> memory{nullptr, ::LocalFree};
};

/// False, with the code, if the system does not tell.
bool getSecurity(const kyHandle& file, Security& security)
{
    PSECURITY_DESCRIPTOR memory = nullptr;
    const DWORD code = ::GetSecurityInfo(
        file.get(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
        &security.owner, nullptr, &security.rights, nullptr, &memory);
    security.memory.reset(memory);
    ::SetLastError(code);
    return code == ERROR_SUCCESS;
}

/// Whether an entry gives nothing to anybody but the owner and those who may do anything anyway.
bool isHarmless(const ACCESS_ALLOWED_ACE& entry, PSID owner)
{
    if ((entry.Header.AceFlags & INHERIT_ONLY_ACE) != 0 ||
        entry.Header.AceType == ACCESS_DENIED_ACE_TYPE) {
        return true;
    }
    // Of entries of another kind it is not known whom they mean.
    if (entry.Header.AceType != ACCESS_ALLOWED_ACE_TYPE) {
        return false;
    }
    auto* account = const_cast<DWORD*>(&entry.SidStart);
    return entry.Mask == 0 || ::EqualSid(account, owner) != FALSE || kyTrust::isTrusted(account) ||
           ::IsWellKnownSid(account, WinCreatorOwnerRightsSid) != FALSE;
}

bool isOpenToOthers(const Security& security)
{
    if (security.rights == nullptr) {
        return true; // Without a list everybody may do anything.
    }
    for (DWORD index = 0; index < security.rights->AceCount; ++index) {
        void* entry = nullptr;
        if (::GetAce(security.rights, index, &entry) == FALSE ||
            !isHarmless(*static_cast<const ACCESS_ALLOWED_ACE*>(entry), security.owner)) {
            return true;
        }
    }
    return false;
}

bool isRegular(const kyHandle& file)
{
    BY_HANDLE_FILE_INFORMATION information{};
    return ::GetFileType(file.get()) == FILE_TYPE_DISK &&
           ::GetFileInformationByHandle(file.get(), &information) != FALSE &&
           (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

} // namespace

std::size_t readSecretFile(const std::string& what, const std::string& path, char* bytes,
                           std::size_t size)
{
    const std::string name = what + " '" + path + "'";
    const auto fail = [&name] {
        throw kyNetError(name + " cannot be read. " + kyNetError::getLastErrorString());
    };

    // The file that is looked at is the one that is read, whatever happens to the name meanwhile. A
    // folder is opened, too, so that it is called what it is.
    const kyHandle file(::CreateFileW(QString::fromStdString(path).toStdWString().c_str(),
                                      GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!file.isValid()) {
        fail();
    }
    if (!isRegular(file)) {
        throw kyNetError(name + " is no regular file");
    }
    Security security;
    if (!getSecurity(file, security)) {
        fail();
    }
    if (!kyTrust::isTrusted(security.owner)) {
        throw kyNetError(name + " belongs to another user");
    }
    if (isOpenToOthers(security)) {
        throw kyNetError(name + " is open to other users; take their rights away: "
                                "icacls FILE /inheritance:r /grant:r %USERNAME%:F");
    }

    std::size_t count = 0;
    DWORD got = 0;
    do {
        if (::ReadFile(file.get(), bytes + count, static_cast<DWORD>(size - count), &got,
                       nullptr) == FALSE) {
            fail();
        }
        count += got;
    } while (got > 0 && count < size);
    return count;
}
