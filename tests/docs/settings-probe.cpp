// Reads the settings file that TARVO_PLATFORM_CONFIG names, as every program does. Exits with 1 where it is damaged.
#include <platform/Installation.h>
#include <platform/Status.h>

#include <array>
#include <iostream>

int main() {
    std::array<char, 257> server{};
    const int status = db_getservernameEx(server.data(), server.size());
    std::cout << getECmsg(status) << "\n";
    return status == 0 ? 0 : 1;
}
