#pragma once

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

/// Somebody who has logged in somewhere.
struct User {
    std::string name;
    std::string sessionToken;
};

/// @param path a file with a line "NAME TOKEN" for each.
inline std::vector<User> readUsers(const std::string& path) {
    std::vector<User> users;
    std::ifstream file(path);
    for (User user; file >> user.name >> user.sessionToken;) {
        users.push_back(user);
    }
    return !users.empty() ? users : throw std::runtime_error("no users in " + path);
}
