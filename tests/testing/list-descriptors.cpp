// Prints what descriptors this program was started with, a line each: the file, or the family of the socket. Its own
// standard streams are left out.

#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <string>

int main() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int number = std::stoi(entry.path().filename().string());
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
        const bool own = number <= STDERR_FILENO || target.rfind("/proc/", 0) == 0;
        if (own || gone) {
            continue;
        }
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        const bool isSocket = getsockname(number, reinterpret_cast<sockaddr*>(&address), &size) == 0;
        std::cout << (isSocket ? "socket of family " + std::to_string(address.ss_family) : target) << "\n";
    }
}
