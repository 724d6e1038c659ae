// A child's output cut into lines, delivered in arbitrary pieces: the lines are those of a plain
// model (split at "\n", lines over the limit dropped whole, UTF-8 repaired) whatever the pieces,
// and repairUtf8 always gives well-formed UTF-8 that keeps well-formed input as it was.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/process/LineSplitter.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::LineSplitter;
using tessarin::engine::repairUtf8;
using tessarin::fuzz::isValidUtf8;
using tessarin::fuzz::require;

void checkRepair(std::string_view bytes) {
    const std::string repaired = repairUtf8(bytes);
    require(isValidUtf8(repaired), "repaired text is UTF-8");
    require(repaired.size() <= 3 * bytes.size(), "a repair at most triples the size");
    if (isValidUtf8(bytes)) {
        require(repaired == bytes, "UTF-8 comes through unchanged");
    }
    require(repairUtf8(repaired) == repaired, "repairing twice changes nothing more");
}

struct Expected {
    std::vector<std::string> lines;
    std::optional<std::string> rest;
};

Expected model(std::string_view bytes, std::size_t maximum) {
    Expected expected;
    std::size_t begin = 0;
    for (std::size_t newline = bytes.find('\n'); newline != std::string_view::npos;
         newline = bytes.find('\n', begin)) {
        if (newline - begin <= maximum) {
            expected.lines.push_back(repairUtf8(bytes.substr(begin, newline - begin)));
        }
        begin = newline + 1;
    }
    const std::string_view rest = bytes.substr(begin);
    if (!rest.empty() && rest.size() <= maximum) {
        expected.rest = repairUtf8(rest);
    }
    return expected;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    // The first byte picks the line limit, 0 to 255 bytes, so that dropping is common.
    const std::size_t maximum = data[0];
    const tessarin::fuzz::ChunkedInput input = tessarin::fuzz::chunkedInput(data + 1, size - 1);
    checkRepair(input.payload);

    const Expected expected = model(input.payload, maximum);
    for (const std::vector<std::size_t>& sizes :
         {input.pieceSizes, std::vector<std::size_t>{1}, std::vector<std::size_t>{size}}) {
        LineSplitter splitter(maximum);
        std::vector<std::string> lines;
        for (const std::string_view piece : tessarin::fuzz::pieces(input.payload, sizes)) {
            for (std::string& line : splitter.feed(piece)) {
                require(line.find('\n') == std::string::npos, "a line holds no line feed");
                require(isValidUtf8(line), "a line is UTF-8");
                require(line.size() <= 3 * maximum, "a line comes from at most the limit");
                lines.push_back(std::move(line));
            }
        }
        require(lines == expected.lines, "the lines of the model whatever the pieces");
        require(splitter.flush() == expected.rest, "the unterminated rest of the model");
        require(!splitter.flush().has_value(), "a flush resets the splitter");
    }
    return 0;
}
