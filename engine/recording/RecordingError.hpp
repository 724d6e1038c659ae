// The failures of recording files, takes and their recovery: a closed set of cases, each with one
// fixed sentence that says what survived and what to do.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

namespace tessarin::engine {

class RecordingError : public std::exception {
public:
    enum class Case {
        outputExists,
        unreadablePart,
        invalidArea,
        noVideo,
        incompatibleSegments,
        missingSegments,
        timedOut,
        missingMicrophone,
        sourceUnavailable,
        unsupportedRecordingStorage,
        lowDiskSpace,
        destinationUnavailable,
        destinationCheckFailed,
        recordingInUse,
        unsafeRecoveryDiscard,
    };

    explicit RecordingError(Case kind);
    // outputExists with the name of the file in the way.
    [[nodiscard]] static RecordingError outputExists(std::string name);
    // unreadablePart with the part's number, counted from 1.
    [[nodiscard]] static RecordingError unreadablePart(int64_t index);

    [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }
    [[nodiscard]] const std::string& message() const { return message_; }
    // The case's name as written here ("recordingInUse"), for --json and logs.
    [[nodiscard]] std::string_view code() const;

    bool operator==(const RecordingError& other) const {
        return kind == other.kind && message_ == other.message_;
    }

    Case kind;

private:
    RecordingError(Case kind, std::string message);
    std::string message_;
};

// The case's name, as RecordingError::code gives it.
[[nodiscard]] std::string_view recordingErrorCode(RecordingError::Case kind);

}  // namespace tessarin::engine
