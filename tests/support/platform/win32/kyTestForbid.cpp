#include <tests/support/platform/win32/kyTestForbid.h>

#include <string>
#include <system_error>
#include <vector>

#include <psapi.h>

namespace kyTest {

namespace {

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

std::vector<HMODULE> getModules()
{
    std::vector<HMODULE> modules(1024);
    DWORD size = 0;
    if (!::EnumProcessModules(::GetCurrentProcess(), modules.data(),
                              static_cast<DWORD>(modules.size() * sizeof(HMODULE)), &size)) {
        fail("EnumProcessModules");
    }
    modules.resize(size / sizeof(HMODULE));
    return modules;
}

bool isOfTheSystem(HMODULE module)
{
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size())));
    std::wstring system(MAX_PATH, L'\0');
    system.resize(::GetSystemDirectoryW(system.data(), MAX_PATH));
    return ::_wcsnicmp(path.c_str(), system.c_str(), system.size()) == 0;
}

/// Calls visit(place) for each address of a foreign function that a module keeps.
template <class Visit> void forEachImport(HMODULE module, Visit visit)
{
    auto* base = reinterpret_cast<char*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& table =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (table.Size == 0) {
        return;
    }
    const auto* import =
        reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + table.VirtualAddress);
    for (; import->Name != 0; ++import) {
        auto* place = reinterpret_cast<FARPROC*>(base + import->FirstThunk);
        for (; *place != nullptr; ++place) {
            visit(place);
        }
    }
}

void write(FARPROC* place, FARPROC value)
{
    DWORD previous = 0;
    if (!::VirtualProtect(place, sizeof(*place), PAGE_READWRITE, &previous)) {
        fail("VirtualProtect");
    }
    *place = value;
    ::VirtualProtect(place, sizeof(*place), previous, &previous);
}

} // namespace

FARPROC findOriginal(const char* library, const char* function)
{
    const HMODULE owner = ::GetModuleHandleA(library);
    return owner != nullptr ? ::GetProcAddress(owner, function) : nullptr;
}

void detour(const char* library, const char* function, FARPROC replacement)
{
    const FARPROC original = findOriginal(library, function);
    for (const HMODULE module : getModules()) {
        if (original == nullptr || isOfTheSystem(module)) {
            continue;
        }
        forEachImport(module, [&](FARPROC* place) {
            if (*place == original) {
                write(place, replacement);
            }
        });
    }
}

} // namespace kyTest
