// The files and folders that are served, and the only way to open one: below a path of the command
// line, by names that don't begin with a dot.

#ifndef HOST_SERVE_TREE_H
#define HOST_SERVE_TREE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "io/descriptor.h"

/// A path of the command line.
struct Root {
    std::string name;  ///< in addresses
    std::string url;   ///< of a file elsewhere; empty: of this machine
    std::string file;  ///< a single file's name in the folder; empty: all of the folder is served
    std::string said;  ///< as the user named it
    Descriptor folder;

    bool is_folder() const { return url.empty() && file.empty(); }
};

/// What an address leads to.
struct Place {
    enum Kind { FOLDER, FILE, URL };
    Kind kind = FOLDER;
    bool f_top = false;  ///< the list of all roots
    size_t root = 0;
    std::string path;  ///< below the root, without a slash at its ends; "." is the root itself
    struct stat status = {};  ///< of a file or folder of this machine
};

struct FolderEntry {
    std::string name;
    bool f_folder = false;
    uint64_t size = 0;
    int64_t time = 0;  ///< of its last change, seconds
};

class Tree {
public:
    /// Throws NotDone or BadUsage.
    explicit Tree(const std::vector<std::string> &paths);

    const std::vector<Root> &roots() const { return m_roots; }
    /// A single folder is itself the top.
    bool is_single() const { return m_roots.size() == 1 && m_roots[0].is_folder(); }

    /// names: the parts of the address, decoded. Nothing where there is no such file or folder, or it
    /// isn't served.
    std::optional<Place> find(const std::vector<std::string> &names) const;
    /// Opens a regular file for reading; not open on failure.
    Descriptor open_file(size_t root, const std::string &path) const;
    /// At most most entries, folders first, in order of their names, numbers by their value. f_more:
    /// there were more. Nothing where it is no folder any more.
    std::optional<std::vector<FolderEntry>> list(size_t root, const std::string &path, size_t most,
                                                 bool *f_more) const;

private:
    Descriptor open(size_t root, const std::string &path, int flags) const;

    std::vector<Root> m_roots;
};

/// Whether the name is that of a film or of music that people expect to be listed.
bool is_media_name(const std::string &name);

#endif
