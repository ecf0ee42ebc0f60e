#include "fonts.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <tuple>
#include <vector>

namespace kvffmpeg::tool {
namespace {

namespace fs = std::filesystem;

// Those with the most scripts first.
constexpr std::array usual{"DejaVuSans",       "NotoSans-Regular",     "LiberationSans-Regular", "FreeSans",
                           "OpenSans-Regular", "Roboto-Regular",       "Cantarell-Regular",      "Ubuntu-R",
                           "wqy-microhei",     "DroidSansFallbackFull"};

/// Empty when it is not set.
std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

/// What is not absolute is to be ignored.
void addFolder(std::vector<fs::path>& folders, const fs::path& data) {
    if (data.is_absolute()) folders.push_back(data / "fonts");
}

std::vector<fs::path> fontFolders() {
    std::vector<fs::path> folders;
    const std::string home = environment("HOME");
    const std::string own = environment("XDG_DATA_HOME");
    addFolder(folders, !own.empty() ? fs::path(own) : fs::path(home) / ".local" / "share");
    const std::string shared = environment("XDG_DATA_DIRS");
    std::istringstream names(!shared.empty() ? shared : KVFFMPEG_DATA_DIRS);
    for (std::string name; std::getline(names, name, ':');) addFolder(folders, name);
    return folders;
}

bool endsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

/// How well a file suits, 0 best; nothing when it is no font.
std::optional<std::size_t> rankOf(const fs::path& path) {
    const std::string ending = path.extension();
    if (ending != ".ttf" && ending != ".otf" && ending != ".ttc") return std::nullopt;
    const std::string name = path.stem();
    const auto* const found = std::find(usual.begin(), usual.end(), name);
    const auto rank = static_cast<std::size_t>(found - usual.begin());
    if (found != usual.end() || endsWith(name, "Sans-Regular")) return rank;
    return rank + (endsWith(name, "-Regular") ? 1 : 2);
}

struct Candidate {
    std::size_t rank = 0;
    fs::path path;
};

bool operator<(const Candidate& a, const Candidate& b) {
    return std::tie(a.rank, a.path) < std::tie(b.rank, b.path);
}

/// The best font in a folder and those below it.
std::optional<Candidate> bestIn(const fs::path& folder) {
    std::optional<Candidate> best;
    std::error_code error;  // a folder that is not there or cannot be read has no fonts
    fs::recursive_directory_iterator entry(folder, fs::directory_options::skip_permission_denied, error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        const std::optional<std::size_t> rank = rankOf(entry->path());
        std::error_code notThere;
        if (!rank || !entry->is_regular_file(notThere)) continue;
        const Candidate candidate{*rank, entry->path()};
        if (!best || candidate < *best) best = candidate;
    }
    return best;
}

}  // namespace

std::string defaultFont() {
    const std::vector<fs::path> folders = fontFolders();
    std::optional<Candidate> best;
    std::string searched;
    for (const fs::path& folder : folders) {
        // At the same rank the user's own folder comes first.
        const std::optional<Candidate> found = bestIn(folder);
        if (found && (!best || found->rank < best->rank)) best = found;
        searched += (searched.empty() ? "" : ", ") + folder.string();
    }
    if (!best) {
        throw std::runtime_error("There is no font to write with" +
                                 (searched.empty() ? "" : " in " + searched) + ": expected --font FILE");
    }
    return best->path;
}

}  // namespace kvffmpeg::tool
