#include <tests/support/kyTestFileRights.h>

#include <memory>
#include <system_error>

#include <QString>
#include <windows.h>

#include <sddl.h>

#include <Utils/platform/win32/kyTrust.h>

namespace kyTest {

namespace {

struct Free
{
    void operator()(void* memory) const { ::LocalFree(memory); }
};
template <class Type> using Owner = std::unique_ptr<Type, Free>;

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

/// The account of this process, as the notation of rights has it.
std::string ownAccount()
{
    const kyTrust::TokenInformation<TOKEN_USER> user(::GetCurrentProcess(), TokenUser);
    char* text = nullptr;
    if (!user.isKnown || !::ConvertSidToStringSidA(user.get().User.Sid, &text)) {
        fail("account");
    }
    return Owner<char>(text).get();
}

std::string allow(const std::string& rights, const std::string& account)
{
    return "(A;;" + rights + ";;;" + account + ")";
}

} // namespace

std::vector<std::string> rightsOfTheOwner()
{
    return {allow("FR", ownAccount()), allow("FA", ownAccount())};
}

std::vector<std::string> rightsOfOthers()
{
    constexpr const char* everybody = "WD";
    std::vector<std::string> all;
    // Wine forgets the right to execute alone.
    for (const char* right : {"FR", "FW", "FA"}) {
        all.push_back(allow("FA", ownAccount()) + allow(right, everybody));
    }
    return all;
}

void setRights(const std::string& path, const std::string& rights)
{
    // Protected from what the folder would add.
    PSECURITY_DESCRIPTOR made = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorA(("D:P" + rights).c_str(),
                                                                SDDL_REVISION_1, &made, nullptr)) {
        fail("rights");
    }
    const Owner<void> security(made);
    if (!::SetFileSecurityW(QString::fromStdString(path).toStdWString().c_str(),
                            DACL_SECURITY_INFORMATION, security.get())) {
        fail("SetFileSecurity");
    }
}

std::string adviceAgainstOthers()
{
    return "icacls FILE /inheritance:r /grant:r %USERNAME%:F";
}

} // namespace kyTest
