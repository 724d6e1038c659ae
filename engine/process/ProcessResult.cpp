#include "engine/process/ProcessResult.hpp"

namespace tessarin::engine {

std::string describeCancellation(const std::optional<CancellationOutcome>& outcome,
                                 std::string_view stderrTail) {
    std::string text = "cancelled";
    if (outcome) {
        switch (outcome->escalation) {
            case Escalation::notLaunched:
                text = "cancelled (before launch)";
                break;
            case Escalation::terminatedGracefully:
                text = "cancelled (SIGTERM)";
                break;
            case Escalation::requiredSigkill:
                text = "cancelled (required SIGKILL)";
                break;
        }
    }
    if (!stderrTail.empty()) {
        text += '\n';
        text += stderrTail;
    }
    return text;
}

}  // namespace tessarin::engine
