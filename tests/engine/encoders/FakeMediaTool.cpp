// A stand-in for a user's ffmpeg or ffprobe: a real native executable whose answers come from
// a file beside it, "<its own path>.fake", of key=value lines:
//   name=ffmpeg          the tool name printed in "-version"
//   version=6.1          the version word (may be empty)
//   mode=normal          normal | flood (prints without end) | hang (sleeps 60 s)
//                        | fail (stderr text, exit 3) | silentfail (exit 4) | garbled
//   encoders=a b c       rows of "-encoders"; likewise filters=, muxers=
// Copies of this one program stand for every tool in the validator tests.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

namespace {

std::map<std::string, std::string> readBehaviour() {
    std::map<std::string, std::string> behaviour;
    char self[4096] = {};
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) {
        return behaviour;
    }
    std::ifstream file(std::string(self, static_cast<std::size_t>(length)) + ".fake");
    std::string line;
    while (std::getline(file, line)) {
        if (const auto equals = line.find('='); equals != std::string::npos) {
            behaviour[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return behaviour;
}

void printTable(const std::string& title, const std::string& words) {
    std::printf("%s:\n V..... = Video\n ------\n", title.c_str());
    std::istringstream stream(words);
    std::string word;
    while (stream >> word) {
        std::printf(" V....D %-20s fake %s\n", word.c_str(), word.c_str());
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::map<std::string, std::string> behaviour = readBehaviour();
    const std::string mode = behaviour["mode"];
    if (mode == "flood") {
        static char chunk[65'536];
        for (char& c : chunk) {
            c = 'y';
        }
        for (;;) {
            if (::write(STDOUT_FILENO, chunk, sizeof chunk) < 0) {
                return 1;
            }
        }
    }
    if (mode == "hang") {
        std::this_thread::sleep_for(std::chrono::seconds(60));
        return 0;
    }
    if (mode == "fail") {
        std::fprintf(stderr, "Unrecognized option 'hide_banner'.\n");
        return 3;
    }
    if (mode == "silentfail") {
        return 4;
    }
    const std::string request = argc > 1 ? argv[argc - 1] : "";
    if (request == "-version") {
        if (mode == "garbled") {
            std::printf("usage: fake [options]\n");
        } else {
            std::printf("%s version %s Copyright (c) the fake developers\nbuilt with fake\n",
                        behaviour["name"].c_str(), behaviour["version"].c_str());
        }
    } else if (request == "-encoders") {
        printTable("Encoders", behaviour["encoders"]);
    } else if (request == "-filters") {
        printTable("Filters", behaviour["filters"]);
    } else if (request == "-muxers") {
        printTable("File formats", behaviour["muxers"]);
    }
    return 0;
}
