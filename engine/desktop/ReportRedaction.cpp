#include "engine/desktop/ReportRedaction.hpp"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>

namespace tessarin::engine {

namespace {

constexpr std::string_view kPrivate = "<private>";

constexpr std::array<std::string_view, 32> kPrivateExtensions{
    ".mov", ".mp4", ".m4v", ".mkv", ".webm", ".avi", ".wmv", ".flv", ".mpg", ".mpeg", ".ts",
    ".mts", ".m2ts", ".3gp", ".ogv", ".gif", ".mp3", ".m4a", ".wav", ".flac", ".aac", ".ogg",
    ".opus", ".srt", ".vtt", ".txt", ".json", ".jpg", ".jpeg", ".png", ".pdf", ".docx"};

constexpr std::array<std::string_view, 8> kSystemFolders{"/usr/", "/lib/", "/lib64/", "/etc/",
                                                         "/proc/", "/sys/", "/dev/", "/bin/"};

bool isWordBreak(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0 || c == '"' || c == '\'' ||
           c == '(' || c == ')' || c == '[' || c == ']' || c == '<' || c == '>' || c == ',' ||
           c == '=' || c == '`';
}

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

bool looksLikeKey(std::string_view word) {
    if (word.starts_with("sk-") && word.size() >= 12) {
        return true;
    }
    if (word.size() < 32) {
        return false;
    }
    // A SHA-256 digest (of a helper tool) is a fact, not a secret.
    if (word.size() == 64 && std::all_of(word.begin(), word.end(), [](char c) {
            return std::isdigit(static_cast<unsigned char>(c)) != 0 || (c >= 'a' && c <= 'f');
        })) {
        return false;
    }
    bool letter = false;
    bool digit = false;
    for (const char c : word) {
        if (std::isalpha(static_cast<unsigned char>(c)) != 0) {
            letter = true;
        } else if (std::isdigit(static_cast<unsigned char>(c)) != 0) {
            digit = true;
        } else if (c != '-' && c != '_') {
            return false;
        }
    }
    return letter && digit;
}

bool isPrivateWord(std::string_view word) {
    // A trailing full stop or colon of the sentence is not part of the word.
    while (!word.empty() && (word.back() == '.' || word.back() == ':' || word.back() == ';')) {
        word.remove_suffix(1);
    }
    if (word.empty()) {
        return false;
    }
    if (word.front() == '/' && word.size() > 1) {
        return std::none_of(kSystemFolders.begin(), kSystemFolders.end(),
                            [&](std::string_view folder) { return word.starts_with(folder); });
    }
    if (word.starts_with("~/") || word.find("/home/") != std::string_view::npos) {
        return true;
    }
    const auto at = word.find('@');
    if (at != std::string_view::npos && at > 0 && word.find('.', at) != std::string_view::npos) {
        return true;
    }
    const std::string lowered = lower(word);
    for (const std::string_view extension : kPrivateExtensions) {
        if (lowered.size() > extension.size() && lowered.ends_with(extension)) {
            return true;
        }
    }
    return looksLikeKey(word);
}

void replaceAll(std::string& text, const std::string& secret) {
    for (std::size_t at = text.find(secret); at != std::string::npos;
         at = text.find(secret, at + kPrivate.size())) {
        text.replace(at, secret.size(), kPrivate);
    }
}

}  // namespace

RedactionContext currentRedactionContext() {
    RedactionContext context;
    if (const char* home = std::getenv("HOME"); home != nullptr && std::string_view(home) != "/") {
        context.secrets.emplace_back(home);
    }
    if (const passwd* account = ::getpwuid(::getuid()); account != nullptr) {
        if (account->pw_dir != nullptr && std::string_view(account->pw_dir) != "/") {
            context.secrets.emplace_back(account->pw_dir);
        }
        if (account->pw_name != nullptr && std::string_view(account->pw_name) != "root") {
            context.secrets.emplace_back(account->pw_name);
        }
    }
    for (const char* variable : {"USER", "LOGNAME", "OPENROUTER_API_KEY"}) {
        if (const char* value = std::getenv(variable); value != nullptr) {
            context.secrets.emplace_back(value);
        }
    }
    std::array<char, 256> host{};
    if (::gethostname(host.data(), host.size() - 1) == 0 && host[0] != '\0' &&
        std::string_view(host.data()) != "localhost") {
        context.secrets.emplace_back(host.data());
    }
    return context;
}

std::string redactReport(std::string_view text, const RedactionContext& context) {
    std::string result(text);
    // Longest first, so that a home folder goes before the account name inside it.
    std::vector<std::string> secrets;
    for (const std::string& secret : context.secrets) {
        if (secret.size() >= 3 && secret != std::string(kPrivate)) {
            secrets.push_back(secret);
        }
    }
    std::sort(secrets.begin(), secrets.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    for (const std::string& secret : secrets) {
        replaceAll(result, secret);
    }

    std::string redacted;
    redacted.reserve(result.size());
    std::size_t i = 0;
    while (i < result.size()) {
        if (isWordBreak(result[i])) {
            redacted += result[i++];
            continue;
        }
        std::size_t end = i;
        while (end < result.size() && !isWordBreak(result[end])) {
            ++end;
        }
        const std::string_view word(result.data() + i, end - i);
        if (!isPrivateWord(word)) {
            redacted += word;
            i = end;
            continue;
        }
        // A path may hold blanks: it runs to the next quote, line end or ": ".
        if (word.front() == '/' || word.starts_with("~/")) {
            end = result.find_first_of("\"'\n", i);
            end = std::min(end == std::string::npos ? result.size() : end, result.find(": ", i));
        }
        redacted += kPrivate;
        i = end;
    }
    return redacted;
}

}  // namespace tessarin::engine
