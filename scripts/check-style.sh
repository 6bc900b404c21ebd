#!/usr/bin/env bash
# Fails where a source is not laid out as .clang-format says, or the platform wall is broken.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/install-dependencies.sh clang-format

git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror

# Operating-system headers and conditionals stand in platform/ folders only, the export macro aside
# and what the library is compared with.
wall='#[[:space:]]*if.*(_WIN32|__linux__|__unix__|_MSC_VER|__MINGW)|#[[:space:]]*include[[:space:]]*<(windows|winsock2|ws2tcpip|sys/|unistd|poll|netdb|arpa/|netinet/|pthread|fcntl|dirent|signal\.h)'
if git grep -nE "$wall" -- '*.h' '*.cpp' ':!*/platform/*' ':!benchmarks/peers/*' ':!NetBase/kyNetBaseExport.h'; then
    echo "The lines above belong into a platform/ folder." >&2
    exit 1
fi
