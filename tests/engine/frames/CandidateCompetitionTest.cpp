#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/frames/internal/CandidateCompetition.hpp"

namespace tessarin::engine::frames_internal {
namespace {

using Candidate = FrameSelector::Candidate;

Candidate candidate(double time, FrameReason reason, std::optional<int64_t> cells,
                    std::size_t thumbnailBytes = 40,
                    std::optional<double> returnTime = std::nullopt) {
    Candidate result;
    result.frame.time = time;
    result.reason = reason;
    result.changedCells = cells;
    result.thumbnail = std::make_shared<const std::vector<std::uint8_t>>(thumbnailBytes);
    result.returnTime = returnTime;
    return result;
}

struct Row {
    std::string name;
    Candidate last;
    Candidate offered;
    Offer outcome;
};

TEST(CandidateCompetition, CloseCandidatesCompeteForOnePlace) {
    const auto change = FrameReason::change;
    const std::vector<Row> rows = {
        {"far enough apart", candidate(1.0, change, 500), candidate(1.25, FrameReason::activity, 9),
         Offer::appended},
        {"change then activity", candidate(1.0, change, 500),
         candidate(1.1, FrameReason::activity, 9000), Offer::dropped},
        {"change then transient", candidate(1.0, change, 500),
         candidate(1.1, FrameReason::transient, 20), Offer::replaced},
        {"activity then change", candidate(1.0, FrameReason::activity, 9000),
         candidate(1.1, change, 20), Offer::replaced},
        {"change then a bigger change", candidate(1.0, change, 500), candidate(1.1, change, 501),
         Offer::replaced},
        {"change then a smaller change", candidate(1.0, change, 500), candidate(1.1, change, 499),
         Offer::dropped},
        {"equal changes: the earlier stays", candidate(1.0, change, 500),
         candidate(1.1, change, 500), Offer::dropped},
        {"unsettled ranks with change", candidate(1.0, change, 500),
         candidate(1.1, FrameReason::unsettled, 600), Offer::replaced},
        {"no cell count counts as 0", candidate(1.0, change, std::nullopt),
         candidate(1.1, change, 1), Offer::replaced},
        {"transient then last: both kept", candidate(1.0, FrameReason::transient, 500),
         candidate(1.1, FrameReason::last, 20), Offer::appended},
        {"first then last: the first stays", candidate(0.0, FrameReason::first, std::nullopt),
         candidate(0.1, FrameReason::last, 9000), Offer::dropped},
        {"first then change", candidate(0.0, FrameReason::first, std::nullopt),
         candidate(0.1, change, 9000), Offer::dropped},
        {"change captured before a cut is kept", candidate(1.0, change, 500, 40, 1.04),
         candidate(1.04, FrameReason::activity, 1), Offer::appended},
    };
    for (const Row& row : rows) {
        std::vector<Candidate> candidates = {row.last};
        int64_t retained = 0;
        EXPECT_EQ(offerCandidate(candidates, row.offered, 0.25, retained), row.outcome) << row.name;
        const Candidate& kept = candidates.back();
        switch (row.outcome) {
            case Offer::appended:
                EXPECT_EQ(candidates.size(), 2U) << row.name;
                EXPECT_EQ(kept.frame.time, row.offered.frame.time) << row.name;
                break;
            case Offer::replaced:
                EXPECT_EQ(candidates.size(), 1U) << row.name;
                EXPECT_EQ(kept.reason, row.offered.reason) << row.name;
                break;
            case Offer::dropped:
                EXPECT_EQ(candidates.size(), 1U) << row.name;
                EXPECT_EQ(kept.reason, row.last.reason) << row.name;
                break;
        }
    }
}

// The first offer is always appended. Each held thumbnail is accounted at its capacity plus 128
// bytes.
TEST(CandidateCompetition, RetainedBytesFollowTheList) {
    std::vector<Candidate> candidates;
    int64_t retained = 0;
    EXPECT_EQ(
        offerCandidate(candidates, candidate(3.0, FrameReason::activity, 1, 100), 0.25, retained),
        Offer::appended);
    EXPECT_EQ(retained, 228);
    (void)offerCandidate(candidates, candidate(4.0, FrameReason::change, 50, 30), 0.25, retained);
    EXPECT_EQ(retained, 228 + 158);
    (void)offerCandidate(candidates, candidate(4.1, FrameReason::change, 10, 999), 0.25, retained);
    EXPECT_EQ(retained, 228 + 158);  // dropped
    (void)offerCandidate(candidates, candidate(4.1, FrameReason::transient, 10, 60), 0.25,
                         retained);
    EXPECT_EQ(retained, 228 + 188);  // replaced
}

}  // namespace
}  // namespace tessarin::engine::frames_internal
