#include "testing/FailingSystemCalls.h"

#include "testing/ChildProcess.h"
#include "testing/LogCapture.h"
#include "testing/TemporaryDirectory.h"

#include <platform/Status.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <exception>
#include <filesystem>
#include <iostream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace testing_support {

namespace {

enum class Names { A_PATH, A_PATH_IN_A_FOLDER, A_DESCRIPTOR, A_MAPPED_DESCRIPTOR, NO_FILE };

struct Kind {
    long number;
    const char* name;
    Names file;
};

constexpr std::array KINDS{
    Kind{SYS_open, "open", Names::A_PATH},
    Kind{SYS_openat, "open", Names::A_PATH_IN_A_FOLDER},
    Kind{SYS_stat, "stat", Names::A_PATH},
    Kind{SYS_newfstatat, "stat", Names::A_PATH_IN_A_FOLDER},
    Kind{SYS_fstat, "stat", Names::A_DESCRIPTOR},
    Kind{SYS_mmap, "map", Names::A_MAPPED_DESCRIPTOR},
    Kind{SYS_munmap, "unmap", Names::NO_FILE},
    Kind{SYS_flock, "lock", Names::A_DESCRIPTOR},
    Kind{SYS_fcntl, "fcntl", Names::A_DESCRIPTOR},
    Kind{SYS_read, "read", Names::A_DESCRIPTOR},
    Kind{SYS_pread64, "read", Names::A_DESCRIPTOR},
    Kind{SYS_write, "write", Names::A_DESCRIPTOR},
    Kind{SYS_pwrite64, "write", Names::A_DESCRIPTOR},
    Kind{SYS_ftruncate, "resize", Names::A_DESCRIPTOR},
    Kind{SYS_fallocate, "reserve", Names::A_DESCRIPTOR},
    Kind{SYS_fdatasync, "sync", Names::A_DESCRIPTOR},
    Kind{SYS_mkdir, "create", Names::A_PATH},
    Kind{SYS_unlink, "delete", Names::A_PATH},
    Kind{SYS_rename, "rename", Names::A_PATH},
    Kind{SYS_close, "close", Names::A_DESCRIPTOR},
};

const Kind* kindOf(long number) {
    const auto* const kind =
        std::find_if(KINDS.begin(), KINDS.end(), [number](const Kind& k) { return k.number == number; });
    return kind == KINDS.end() ? nullptr : kind;
}

std::string lastPart(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// A child that is stopped at every system call.
class TracedProcess {
public:
    explicit TracedProcess(pid_t pid) : pid_(pid) {}

    /// Waits until the child stops itself for the first time.
    void awaitItsOwnStop() {
        awaitStop();
        ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    }

    /// Lets the child run up to the beginning, or the end, of its next system call.
    ///
    /// @return false: it stopped itself instead.
    bool runToSystemCall() {
        for (int signal = 0;; signal = WSTOPSIG(status_)) {
            ptrace(PTRACE_SYSCALL, pid_, nullptr, signal);
            awaitStop();
            if (WSTOPSIG(status_) == (SIGTRAP | 0x80) || WSTOPSIG(status_) == SIGSTOP) {
                ptrace(PTRACE_GETREGS, pid_, nullptr, &registers_);
                return WSTOPSIG(status_) != SIGSTOP;
            }
        }
    }

    long call() const { return static_cast<long>(registers_.orig_rax); }

    /// Of the call that it is at the beginning of; empty where that has no file.
    std::string fileOf(const Kind& kind) const {
        switch (kind.file) {
            case Names::A_PATH:
                return lastPart(text(registers_.rdi));
            case Names::A_PATH_IN_A_FOLDER: {
                const std::string path = text(registers_.rsi);
                return lastPart(path.empty() ? pathOf(registers_.rdi) : path);
            }
            case Names::A_DESCRIPTOR:
                return lastPart(pathOf(registers_.rdi));
            case Names::A_MAPPED_DESCRIPTOR:
                return lastPart(pathOf(registers_.r8));
            default:
                return "";
        }
    }

    /// At the beginning of a call: the kernel is to do nothing.
    void skipCall() {
        registers_.orig_rax = ~0ULL;
        ptrace(PTRACE_SETREGS, pid_, nullptr, &registers_);
    }
    /// At its end: what the child is told.
    void fail(int error) {
        registers_.rax = static_cast<unsigned long long>(-static_cast<long long>(error));
        ptrace(PTRACE_SETREGS, pid_, nullptr, &registers_);
    }

    void letGo() const { ptrace(PTRACE_DETACH, pid_, nullptr, 0); }

private:
    /// @throws std::runtime_error: the child ends instead, which is left to be found out by its owner.
    void awaitStop() {
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WSTOPPED | WNOWAIT);
        if (info.si_code != CLD_TRAPPED && info.si_code != CLD_STOPPED) {
            throw std::runtime_error("the child ended with " + std::to_string(info.si_status));
        }
        waitpid(pid_, &status_, 0);
    }

    std::string pathOf(unsigned long long descriptor) const {
        std::error_code none;
        return std::filesystem::read_symlink(
                   "/proc/" + std::to_string(pid_) + "/fd/" + std::to_string(static_cast<int>(descriptor)), none)
            .string();
    }

    std::string text(unsigned long long address) const {
        std::string found;
        for (;; address += sizeof(long)) {
            errno = 0;
            const long word = ptrace(PTRACE_PEEKDATA, pid_, address, nullptr);
            if (errno != 0) {
                return found;
            }
            for (std::size_t i = 0; i < sizeof word; ++i) {
                const char byte = reinterpret_cast<const char*>(&word)[i];
                if (byte == '\0') {
                    return found;
                }
                found += byte;
            }
        }
    }

    pid_t pid_;
    int status_ = 0;
    user_regs_struct registers_{};
};

int workInChild(int outcome, const std::function<std::string()>& work, const AroundTheWork& around) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    around.before();
    const int before = openDescriptorCount();
    raise(SIGSTOP);
    std::string text = work();
    raise(SIGSTOP);
    const int more = openDescriptorCount() - before;
    text += around.after();
    if (more != 0) {
        text += (more > 0 ? " +" : " ") + std::to_string(more);
    }
    return write(outcome, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
}

/// Lets one call fail, the one after `allowed` others. Empty: there was none.
std::string failOne(TracedProcess& child, int allowed, int error, const AroundTheWork& around) {
    child.awaitItsOwnStop();
    std::string failed;
    while (child.runToSystemCall()) {
        const Kind* const kind = kindOf(child.call());
        const std::string file = kind == nullptr ? "" : child.fileOf(*kind);
        const bool isCounted =
            kind != nullptr && (kind->file == Names::NO_FILE || !file.empty()) && around.concerns(file);
        const bool fails = isCounted && allowed-- == 0;
        if (fails) {
            failed = std::string(kind->name) + (file.empty() ? "" : " " + file);
            if (kind->number != SYS_close) {
                child.skipCall();
            }
        }
        child.runToSystemCall();
        if (fails) {
            child.fail(error);
        }
    }
    child.letGo();
    return failed;
}

std::string readToEnd(int descriptor) {
    std::string text;
    std::array<char, 1024> chunk{};
    for (ssize_t count = 0; (count = read(descriptor, chunk.data(), chunk.size())) > 0;) {
        text.append(chunk.data(), static_cast<std::size_t>(count));
    }
    return text;
}

}  // namespace

std::vector<std::string> failEachSystemCall(int error, const std::function<std::string()>& work,
                                            const AroundTheWork& around) {
    std::vector<std::string> all;
    for (int allowed = 0;; ++allowed) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("cannot make a pipe");
        }
        ChildProcess child([&] { return workInChild(ends[1], work, around); });
        close(ends[1]);
        TracedProcess traced(child.pid());
        const std::string failed = failOne(traced, allowed, error, around);
        const std::string outcome = readToEnd(ends[0]);
        close(ends[0]);
        const int end = child.wait();
        if (failed.empty()) {
            return all;
        }
        all.push_back(failed + ": " + (end == 0 ? outcome : "the child ended with " + std::to_string(end)));
    }
}

bool isUnlocked(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool isFree = descriptor >= 0 && flock(descriptor, LOCK_EX | LOCK_NB) == 0;
    close(descriptor);
    return isFree;
}

std::string outcomeOf(const std::function<void()>& call) {
    const LogCapture log;
    std::ostringstream written;
    std::streambuf* const before = std::cerr.rdbuf(written.rdbuf());
    std::string outcome = "done";
    try {
        call();
    } catch (const EC_exception& failure) {
        outcome = "status " + std::to_string(failure.status);
    } catch (const std::exception& failure) {
        outcome = failure.what();
    }
    std::cerr.rdbuf(before);
    std::string details = written.str().empty() ? "" : " / " + written.str().substr(0, written.str().size() - 1);
    for (const LogLine& line : log.linesAt(16)) {
        details += " [" + line.tag + "] " + line.message;
    }
    return outcome + std::regex_replace(details, std::regex("/[^ ]*/"), "");
}

}  // namespace testing_support
