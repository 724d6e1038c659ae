#include "engine/desktop/ReleaseFeed.hpp"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace tessarin::engine {

namespace {

struct DocumentFree {
    void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};

bool isNamed(const xmlNode* node, std::string_view name) {
    return node->type == XML_ELEMENT_NODE &&
           std::string_view(reinterpret_cast<const char*>(node->name)) == name;
}

std::optional<std::string> attribute(const xmlNode* node, const char* name) {
    xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
    if (value == nullptr) {
        return std::nullopt;
    }
    std::string text(reinterpret_cast<const char*>(value));
    xmlFree(value);
    return text;
}

// The text of a node's descendants, blanks folded, cut at `limit` bytes.
void appendText(const xmlNode* node, std::string& out, std::size_t limit) {
    for (const xmlNode* child = node; child != nullptr && out.size() < limit;
         child = child->next) {
        if (child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) {
            for (const char* c = reinterpret_cast<const char*>(child->content);
                 c != nullptr && *c != '\0' && out.size() < limit; ++c) {
                const bool blank = std::isspace(static_cast<unsigned char>(*c)) != 0;
                if (!blank) {
                    out += *c;
                } else if (!out.empty() && out.back() != ' ' && out.back() != '\n') {
                    out += ' ';
                }
            }
        } else if (child->type == XML_ELEMENT_NODE) {
            const bool paragraph = isNamed(child, "p") || isNamed(child, "li");
            if (paragraph && !out.empty()) {
                while (!out.empty() && out.back() == ' ') {
                    out.pop_back();
                }
                out += '\n';
            }
            appendText(child->children, out, limit);
        }
    }
}

bool validVersion(std::string_view version) {
    return !version.empty() && version.size() <= kMaxReleaseVersionBytes &&
           std::isdigit(static_cast<unsigned char>(version.front())) != 0 &&
           std::all_of(version.begin(), version.end(), [](char c) {
               return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '+' ||
                      c == '~' || c == '-';
           });
}

bool validDate(std::string_view date) {
    if (date.size() != 10 || date[4] != '-' || date[7] != '-') {
        return false;
    }
    for (const std::size_t i : {0, 1, 2, 3, 5, 6, 8, 9}) {
        if (std::isdigit(static_cast<unsigned char>(date[i])) == 0) {
            return false;
        }
    }
    return true;
}

bool validURL(std::string_view url) {
    return url.starts_with("https://") && url.size() > 8 && url.size() <= 2048 &&
           std::none_of(url.begin(), url.end(), [](char c) {
               return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f;
           });
}

const xmlNode* findReleases(const xmlNode* node) {
    for (; node != nullptr; node = node->next) {
        if (isNamed(node, "releases")) {
            return node;
        }
        if (isNamed(node, "component")) {
            if (const xmlNode* found = findReleases(node->children)) {
                return found;
            }
        }
    }
    return nullptr;
}

int orderOf(char c) {
    if (c == '~') {
        return -1;
    }
    if (std::isalpha(static_cast<unsigned char>(c)) != 0) {
        return static_cast<unsigned char>(c);
    }
    return static_cast<unsigned char>(c) + 256;
}

}  // namespace

std::vector<ReleaseEntry> parseReleaseFeed(std::string_view xml) {
    if (xml.size() > kMaxReleaseFeedBytes) {
        throw ReleaseFeedError("The release list is too large.");
    }
    // No network, no entity substitution, no DTD loading; errors stay quiet.
    const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
    std::unique_ptr<xmlDoc, DocumentFree> document(
        xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "feed.xml", nullptr, options));
    if (!document) {
        throw ReleaseFeedError("The release list isn't well-formed XML.");
    }
    if (document->intSubset != nullptr || document->extSubset != nullptr) {
        throw ReleaseFeedError("The release list declares a document type.");
    }
    const xmlNode* releases = findReleases(xmlDocGetRootElement(document.get()));
    if (releases == nullptr) {
        throw ReleaseFeedError("The release list has no releases element.");
    }
    std::vector<ReleaseEntry> entries;
    std::size_t count = 0;
    for (const xmlNode* node = releases->children; node != nullptr; node = node->next) {
        if (!isNamed(node, "release")) {
            continue;
        }
        if (++count > kMaxReleases) {
            throw ReleaseFeedError("The release list names too many releases.");
        }
        const std::optional<std::string> version = attribute(node, "version");
        if (!version || !validVersion(*version)) {
            continue;
        }
        ReleaseEntry entry{*version, attribute(node, "date"), std::nullopt, {}};
        if (entry.date && !validDate(*entry.date)) {
            entry.date.reset();
        }
        for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
            if (isNamed(child, "url") && !entry.url) {
                std::string url;
                appendText(child->children, url, 2049);
                if (validURL(url)) {
                    entry.url = url;
                }
            } else if (isNamed(child, "description") && entry.description.empty()) {
                appendText(child->children, entry.description, kMaxReleaseTextBytes);
                while (!entry.description.empty() &&
                       (entry.description.back() == ' ' || entry.description.back() == '\n')) {
                    entry.description.pop_back();
                }
                // Cut at a UTF-8 boundary.
                while (!entry.description.empty() &&
                       (static_cast<unsigned char>(entry.description.back()) & 0xC0) == 0x80) {
                    entry.description.pop_back();
                }
                if (!entry.description.empty() &&
                    (static_cast<unsigned char>(entry.description.back()) & 0xC0) == 0xC0) {
                    entry.description.pop_back();
                }
            }
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

int compareVersions(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() || j < b.size()) {
        // The non-digit run.
        while ((i < a.size() && std::isdigit(static_cast<unsigned char>(a[i])) == 0) ||
               (j < b.size() && std::isdigit(static_cast<unsigned char>(b[j])) == 0)) {
            const int left =
                i < a.size() && std::isdigit(static_cast<unsigned char>(a[i])) == 0 ? orderOf(a[i])
                                                                                     : 0;
            const int right =
                j < b.size() && std::isdigit(static_cast<unsigned char>(b[j])) == 0 ? orderOf(b[j])
                                                                                     : 0;
            if (left != right) {
                return left < right ? -1 : 1;
            }
            i += left != 0 ? 1 : 0;
            j += right != 0 ? 1 : 0;
        }
        // The digit run, as a number: leading zeros skipped, then longer is larger.
        while (i < a.size() && a[i] == '0') {
            ++i;
        }
        while (j < b.size() && b[j] == '0') {
            ++j;
        }
        std::size_t endA = i;
        std::size_t endB = j;
        while (endA < a.size() && std::isdigit(static_cast<unsigned char>(a[endA])) != 0) {
            ++endA;
        }
        while (endB < b.size() && std::isdigit(static_cast<unsigned char>(b[endB])) != 0) {
            ++endB;
        }
        if (endA - i != endB - j) {
            return endA - i < endB - j ? -1 : 1;
        }
        const int digits = a.substr(i, endA - i).compare(b.substr(j, endB - j));
        if (digits != 0) {
            return digits < 0 ? -1 : 1;
        }
        i = endA;
        j = endB;
    }
    return 0;
}

std::optional<ReleaseEntry> newestRelease(const std::vector<ReleaseEntry>& releases,
                                          std::string_view current) {
    std::optional<ReleaseEntry> newest;
    for (const ReleaseEntry& entry : releases) {
        if (compareVersions(entry.version, current) > 0 &&
            (!newest || compareVersions(entry.version, newest->version) > 0)) {
            newest = entry;
        }
    }
    return newest;
}

}  // namespace tessarin::engine
