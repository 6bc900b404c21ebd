#include <tests/support/kyTestFileRights.h>

#include <filesystem>

namespace kyTest {

std::vector<std::string> rightsOfTheOwner()
{
    return {"400", "700"};
}

std::vector<std::string> rightsOfOthers()
{
    return {"740", "720", "710", "704", "702", "701"};
}

void setRights(const std::string& path, const std::string& rights)
{
    std::filesystem::permissions(
        path, static_cast<std::filesystem::perms>(std::stoi(rights, nullptr, 8)));
}

std::string adviceAgainstOthers()
{
    return "chmod go=";
}

} // namespace kyTest
