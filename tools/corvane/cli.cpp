#include "cli.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace cvi {

std::string readInput(const std::string& path) {
    if (path == "-") {
        std::ostringstream ss;
        ss << std::cin.rdbuf();
        return ss.str();
    }
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        throw Failure(kExitUsage, "cannot read " + path + ": " + std::strerror(errno));
    if (S_ISDIR(st.st_mode)) throw Failure(kExitUsage, path + " is a directory, not a file");
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure(kExitUsage, "cannot read " + path + ": " + std::strerror(errno));
    std::string data{std::istreambuf_iterator<char>(in), {}};
    if (in.bad()) throw Failure(kExitUsage, "cannot read " + path);
    return data;
}

Json payloadArgument(const std::string& arg) {
    const bool fromFile = !arg.empty() && arg[0] == '@';
    const std::string where = fromFile ? arg.substr(1) : "the payload argument";
    const std::string text = fromFile ? readInput(arg.substr(1)) : arg;
    try {
        return Json::parse(text);
    } catch (const Json::parse_error& e) {
        throw Failure(kExitRefused, where + " is not JSON: " + e.what());
    }
}

}  // namespace cvi
