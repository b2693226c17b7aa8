// The pages, and what they consist of.

#ifndef HOST_SERVE_PAGE_H
#define HOST_SERVE_PAGE_H

#include <string>
#include <vector>

#include "hls/film.h"
#include "tree.h"

/// More entries of a folder aren't shown.
constexpr size_t MOST_LISTED = 20000;
/// Nor are those after so many bytes of a page, which only long names come to.
constexpr size_t MOST_LISTED_BYTES = 2 * 1024 * 1024;

/// What a page may load beside its own parts.
struct PageParts {
    std::string hls_js;  ///< the player for browsers without HLS of their own; empty: there is none
};

/// file: of hls.js; empty: looks in the usual places. Throws NotDone where a file named can't be read.
PageParts load_page_parts(const std::string &file);

/// Of all roots.
std::string top_page(const Tree &tree);
std::string folder_page(const Tree &tree, size_t root, const std::string &path,
                        const std::vector<FolderEntry> &entries, bool f_more);
/// Of what is below an address. title: of the page. f_more: these aren't all.
std::string listing_page(const std::string &title, const std::vector<std::string> &names,
                         const std::vector<FolderEntry> &entries, bool f_more);
/// names: the film's address.
std::string film_page(const PageParts &parts, const std::vector<std::string> &names);
/// What the script shows of a film.
std::string details_json(const Film &film, uint64_t size);

#endif
