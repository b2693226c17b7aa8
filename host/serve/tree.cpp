#include "tree.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "address.h"
#include "io/message.h"
#include "io/text.h"

namespace {

// A link that leads about in circles, and renames elsewhere, end a look-up; the latter is tried again.
constexpr int MOST_TRIES = 8;

Root open_root(const std::string &path);
std::string name_of_url(const std::string &url);
std::string extension_of(const std::string &name);
int open_by_kernel(int folder, const std::string &path, int flags);
int open_by_parts(int folder, const std::string &path, int flags);
std::optional<FolderEntry> entry_of(const std::string &name, const struct stat &status);
bool is_before(const FolderEntry &a, const FolderEntry &b);
int compare_names(const std::string &a, const std::string &b);

}  // namespace

Tree::Tree(const std::vector<std::string> &paths)
{
    std::set<std::string> names;
    for (const std::string &path : paths) {
        Root root = open_root(path);
        const std::string name = root.name;
        for (int number = 2; !names.insert(root.name).second; ++number)
            root.name = name + " (" + std::to_string(number) + ")";
        m_roots.push_back(std::move(root));
    }
}

std::optional<Place> Tree::find(const std::vector<std::string> &names) const
{
    Place place;
    size_t used = 0;
    if (!is_single()) {
        place.f_top = names.empty();
        if (place.f_top) return place;
        const auto root = std::find_if(m_roots.begin(), m_roots.end(), [&](const Root &candidate) {
            return candidate.name == names[0];
        });
        if (root == m_roots.end()) return {};
        place.root = static_cast<size_t>(root - m_roots.begin());
        used = 1;
    }
    const Root &root = m_roots[place.root];
    if (!root.is_folder() && names.size() > used) return {};
    if (!root.url.empty()) {
        place.kind = Place::URL;
        return place;
    }
    const auto path = path_below(names, used);
    if (!path) return {};
    place.path = root.file.empty() ? *path : root.file;

    const Descriptor file = open(place.root, place.path, O_PATH);
    if (!file.is_open() || fstat(file.get(), &place.status) != 0) return {};
    const bool f_folder = S_ISDIR(place.status.st_mode);
    if (f_folder ? !root.is_folder() : !S_ISREG(place.status.st_mode)) return {};
    place.kind = f_folder ? Place::FOLDER : Place::FILE;
    return place;
}

Descriptor Tree::open_file(size_t root, const std::string &path) const
{
    // A pipe without a writer would block without O_NONBLOCK; to a regular file it means nothing.
    Descriptor file = open(root, path, O_RDONLY | O_NONBLOCK);
    struct stat status = {};
    if (!file.is_open() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
    return file;
}

std::optional<std::vector<FolderEntry>> Tree::list(size_t root, const std::string &path,
                                                   size_t most, bool *f_more) const
{
    Descriptor folder = open(root, path, O_RDONLY | O_DIRECTORY);
    if (!folder.is_open()) return {};
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(
        fdopendir(fcntl(folder.get(), F_DUPFD_CLOEXEC, 0)), closedir);
    if (stream == nullptr) return {};
    std::vector<FolderEntry> entries;
    *f_more = false;
    const std::string below = path + "/";
    while (const dirent *found = readdir(stream.get())) {
        const std::string name = found->d_name;
        struct stat status = {};
        if (name[0] == '.' ||
            fstatat(folder.get(), found->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (S_ISLNK(status.st_mode)) {
            const Descriptor target = open(root, below + name, O_PATH);
            if (!target.is_open() || fstat(target.get(), &status) != 0) continue;
        }
        auto entry = entry_of(name, status);
        if (!entry) continue;
        *f_more = entries.size() == most;
        if (*f_more) break;
        entries.push_back(std::move(*entry));
    }
    std::sort(entries.begin(), entries.end(), is_before);
    return entries;
}

Descriptor Tree::open(size_t root, const std::string &path, int flags) const
{
    const int folder = m_roots[root].folder.get();
    const int file = open_by_kernel(folder, path, flags | O_CLOEXEC);
    // Kernels before 5.6, some containers, and confine() on a kernel without Landlock have no such call.
    const bool f_missing = file < 0 && (errno == ENOSYS || errno == EPERM);
    return Descriptor(f_missing ? open_by_parts(folder, path, flags | O_CLOEXEC) : file);
}

bool is_media_name(const std::string &name)
{
    // The last ones can't be remuxed: the page says so.
    static const char *const EXTENSIONS[] = {"mp4",  "m4v",  "mov", "m4a",  "3gp", "mkv",  "mka",
                                             "mk3d", "webm", "mp3", "mp2",  "mp1", "m2ts", "mts",
                                             "ts",   "avi",  "mpg", "mpeg", "vob", "wmv",  "flv",
                                             "flac", "ogg",  "ogv", "opus", "wav", "wma",  "aac"};
    const std::string extension = extension_of(name);
    return std::any_of(std::begin(EXTENSIONS), std::end(EXTENSIONS),
                       [&](const char *candidate) { return extension == candidate; });
}

namespace {

Root open_root(const std::string &path)
{
    Root root;
    root.said = without_passwords(path);
    if (is_url(path)) {
        root.url = path;
        root.name = name_of_url(path);
        return root;
    }
    const std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), free);
    struct stat status = {};
    if (real == nullptr || stat(real.get(), &status) != 0) throw NotDone(path, error_text(errno));
    std::string folder = real.get();
    if (S_ISREG(status.st_mode)) {
        root.file = folder.substr(folder.rfind('/') + 1);
        folder.erase(std::max<size_t>(folder.rfind('/'), 1));
    } else if (!S_ISDIR(status.st_mode)) {
        throw NotDone(path, "neither a file nor a folder");
    }
    root.folder = Descriptor(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root.folder.is_open() || access(real.get(), R_OK) != 0)
        throw NotDone(path, error_text(errno));
    root.name = root.file.empty() ? folder.substr(folder.rfind('/') + 1) : root.file;
    // Addresses with such parts lead nowhere.
    root.name.erase(0, root.name.find_first_not_of('.'));
    if (root.name.empty()) root.name = "files";
    return root;
}

std::string name_of_url(const std::string &url)
{
    std::string name = url.substr(0, url.find_first_of("?#"));
    name.erase(0, name.rfind('/') + 1);
    name.erase(0, name.find_first_not_of('.'));
    return name.empty() ? "film" : name;
}

std::string extension_of(const std::string &name)
{
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos) return "";
    std::string extension = name.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return extension;
}

// Links are followed as long as they stay below the folder.
int open_by_kernel(int folder, const std::string &path, int flags)
{
    open_how how = {};
    how.flags = static_cast<unsigned>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    for (int tries = 0; tries < MOST_TRIES; ++tries) {
        const long file = syscall(SYS_openat2, folder, path.c_str(), &how, sizeof how);
        if (file >= 0 || (errno != EAGAIN && errno != EINTR)) return static_cast<int>(file);
    }
    return -1;
}

// No links at all.
int open_by_parts(int folder, const std::string &path, int flags)
{
    Descriptor here(openat(folder, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (size_t at = 0;;) {
        const size_t slash = path.find('/', at);
        const std::string name = path.substr(at, slash - at);
        if (name == "..") return -1;
        const bool f_last = slash == std::string::npos;
        const int next =
            openat(here.get(), name.c_str(),
                   f_last ? flags | O_NOFOLLOW : O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (f_last || next < 0) return next;
        here = Descriptor(next);
        at = slash + 1;
    }
}

std::optional<FolderEntry> entry_of(const std::string &name, const struct stat &status)
{
    const bool f_folder = S_ISDIR(status.st_mode);
    if (!f_folder && (!S_ISREG(status.st_mode) || !is_media_name(name))) return {};
    return FolderEntry{name, f_folder, static_cast<uint64_t>(status.st_size), status.st_mtime};
}

bool is_before(const FolderEntry &a, const FolderEntry &b)
{
    if (a.f_folder != b.f_folder) return a.f_folder;
    const int order = compare_names(a.name, b.name);
    return order != 0 ? order < 0 : a.name < b.name;
}

// As people count: "part 2" is before "part 10".
int compare_names(const std::string &a, const std::string &b)
{
    const auto is_digit = [](char letter) { return letter >= '0' && letter <= '9'; };
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (is_digit(a[i]) && is_digit(b[j])) {
            const auto number = [&](const std::string &text, size_t &at) {
                while (at < text.size() && text[at] == '0')
                    ++at;
                const size_t from = at;
                while (at < text.size() && is_digit(text[at]))
                    ++at;
                return text.substr(from, at - from);
            };
            const std::string x = number(a, i), y = number(b, j);
            if (x.size() != y.size()) return x.size() < y.size() ? -1 : 1;
            if (x != y) return x < y ? -1 : 1;
            continue;
        }
        const int x = std::tolower(static_cast<unsigned char>(a[i++]));
        const int y = std::tolower(static_cast<unsigned char>(b[j++]));
        if (x != y) return x - y;
    }
    return static_cast<int>(a.size() - i > 0) - static_cast<int>(b.size() - j > 0);
}

}  // namespace
