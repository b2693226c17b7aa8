#include "page.h"

#include <fstream>
#include <iterator>
#include <map>

#include <fmt/format.h>

#include "address.h"
#include "io/message.h"
#include "io/text.h"
#include "parts.h"
#include "stream/json_text.h"

namespace {

// Where Debian and npm put it.
const char *const USUAL_PLACES[] = {
    "/usr/share/javascript/hls.js/hls.min.js", "/usr/share/javascript/hls.js/hls.js",
    "/usr/share/nodejs/hls.js/dist/hls.min.js", "/usr/lib/node_modules/hls.js/dist/hls.min.js",
    "/usr/local/lib/node_modules/hls.js/dist/hls.min.js"};
// A file that is larger is another one.
constexpr size_t MOST_SCRIPT_BYTES = 8 * 1024 * 1024;

using Names = std::vector<std::string>;

std::string page(const std::string &title, const Names &names, const std::string &head,
                 const std::string &body);
std::string filled(const char *form, const std::map<std::string, std::string> &values);
std::string way_to(const Names &names, const std::string &top);
std::string rows_of(const std::vector<FolderEntry> &entries, bool f_more);
std::string size_text(uint64_t size);
Names names_of(const Tree &tree, size_t root, const std::string &path);
std::string title_of(const Tree &tree);

}  // namespace

PageParts load_page_parts(const std::string &file)
{
    PageParts parts;
    const auto load = [&](const std::string &path) {
        std::ifstream stream(path, std::ios::binary);
        if (!stream) return false;
        parts.hls_js.assign(std::istreambuf_iterator<char>(stream), {});
        return true;
    };
    if (!file.empty()) {
        if (!load(file) || parts.hls_js.empty()) throw NotDone(file, "can't be read");
        if (parts.hls_js.size() > MOST_SCRIPT_BYTES) throw NotDone(file, "too large for hls.js");
        return parts;
    }
    for (const char *place : USUAL_PLACES) {
        if (load(place)) break;
    }
    return parts;
}

std::string top_page(const Tree &tree)
{
    std::vector<FolderEntry> entries;
    for (const Root &root : tree.roots())
        entries.push_back({root.name, root.is_folder(), 0, 0});
    return listing_page("Films", {}, entries, false);
}

std::string folder_page(const Tree &tree, size_t root, const std::string &path,
                        const std::vector<FolderEntry> &entries, bool f_more)
{
    const Names names = names_of(tree, root, path);
    return listing_page(names.empty() ? title_of(tree) : names.back(), names, entries, f_more);
}

std::string listing_page(const std::string &title, const Names &names,
                         const std::vector<FolderEntry> &entries, bool f_more)
{
    return page(title, names, "", rows_of(entries, f_more));
}

std::string film_page(const PageParts &parts, const Names &names)
{
    std::string top;
    for (size_t i = 0; i < names.size(); ++i)
        top += "../";
    const std::string head =
        parts.hls_js.empty() ? "" : "<script defer src=\"" + top + ".golt/hls.js\"></script>\n";
    return page(names.empty() ? "" : names.back(), names, head, FILM_HTML);
}

std::string details_json(const Film &film, uint64_t size)
{
    const auto or_null = [](const auto &value) { return value == 0 ? Json() : Json(value); };
    const auto text_or_null = [](const std::string &text) {
        return text.empty() ? Json() : Json(text);
    };
    Json json = json_document("golt.film/1");
    json["refusal"] = text_or_null(film.refusal);
    json["size"] = or_null(size);
    json["duration_ms"] = film.duration == 0 ? Json() : json_ms(film.duration);
    json["kinds"] = text_or_null(film.kinds);
    json["codecs"] = text_or_null(film.codecs);
    json["width"] = or_null(film.width);
    json["height"] = or_null(film.height);
    json["segments"] = film.segments.size();
    json["independent"] = film.f_independent;
    json["peak_bits_per_second"] = or_null(film.peak_bits);
    json["average_bits_per_second"] = or_null(film.average_bits);
    return json_text(json) + "\n";
}

namespace {

// Addresses are relative, so that a proxy may show the server below another address.
std::string page(const std::string &title, const Names &names, const std::string &head,
                 const std::string &body)
{
    std::string top;
    for (size_t i = 0; i < names.size(); ++i)
        top += "../";
    return filled(PAGE_HTML, {{"title", xml_text(title)},
                              {"top", top},
                              {"head", head},
                              {"way", way_to(names, top)},
                              {"body", body}});
}

// The form with the values in place of {{their names}}.
std::string filled(const char *form, const std::map<std::string, std::string> &values)
{
    const std::string text = form;
    std::string out;
    size_t done = 0;
    for (size_t at = 0; (at = text.find("{{", done)) != std::string::npos;) {
        const size_t end = text.find("}}", at);
        out += text.substr(done, at - done) + values.at(text.substr(at + 2, end - at - 2));
        done = end + 2;
    }
    return out + text.substr(done);
}

// Links to all folders above.
std::string way_to(const Names &names, const std::string &top)
{
    std::string way;
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string address = top.substr(3 * i);
        way += fmt::format("<a href=\"{}\">{}</a> / ", address,
                           i == 0 ? "All films" : xml_text(names[i - 1]));
    }
    return way;
}

std::string rows_of(const std::vector<FolderEntry> &entries, bool f_more)
{
    if (entries.empty()) return "<p>There are no films in this folder.</p>\n";
    std::string rows = "<ul>\n";
    size_t shown = 0;
    for (; shown < entries.size() && rows.size() < MOST_LISTED_BYTES; ++shown) {
        const FolderEntry &entry = entries[shown];
        // "./" keeps a colon in the name from being taken for the end of a scheme.
        rows += fmt::format("<li class=\"{}\"><a href=\"./{}/\">{}{}</a>",
                            entry.f_folder ? "folder" : "film", encoded(entry.name),
                            xml_text(entry.name), entry.f_folder ? "/" : "");
        if (!entry.f_folder)
            rows += fmt::format("<span class=\"size\">{}</span><span class=\"details\"></span>",
                                entry.size == 0 ? "" : size_text(entry.size));
        rows += "</li>\n";
    }
    rows += "</ul>\n";
    if (f_more || shown < entries.size())
        rows += fmt::format("<p>There are more; these are the first {}.</p>\n", shown);
    return rows;
}

std::string size_text(uint64_t size)
{
    static const char *const UNITS[] = {"kB", "MB", "GB", "TB"};
    double amount = static_cast<double>(size) / 1000;
    size_t unit = 0;
    for (; amount >= 999.5 && unit + 1 < std::size(UNITS); ++unit)
        amount /= 1000;
    return fmt::format(amount < 9.95 ? "{:.1f} {}" : "{:.0f} {}", amount, UNITS[unit]);
}

Names names_of(const Tree &tree, size_t root, const std::string &path)
{
    Names names;
    if (!tree.is_single()) names.push_back(tree.roots()[root].name);
    if (path == ".") return names;
    for (size_t at = 0; at <= path.size();) {
        const size_t slash = std::min(path.find('/', at), path.size());
        names.push_back(path.substr(at, slash - at));
        at = slash + 1;
    }
    return names;
}

std::string title_of(const Tree &tree)
{
    return tree.roots()[0].name;
}

}  // namespace
