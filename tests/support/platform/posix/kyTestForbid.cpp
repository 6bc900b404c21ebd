#include <tests/support/platform/posix/kyTestForbid.h>

#include <cerrno>
#include <cstddef>
#include <system_error>
#include <vector>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

void kyTest::forbid(const SystemCall& call, int code)
{
    const sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    std::vector<sock_filter> program;
    const auto allowUnless = [&](std::size_t offset, unsigned value) {
        program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset)));
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 1, 0));
        program.push_back(allow);
    };
    allowUnless(offsetof(seccomp_data, nr), call.number);
    if (call.argument) {
        allowUnless(offsetof(seccomp_data, args[0]), *call.argument);
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(code)));

    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        throw std::system_error(errno, std::generic_category(), "prctl");
    }
}
