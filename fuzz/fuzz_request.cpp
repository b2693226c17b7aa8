// What the server makes of bytes from outside, without a socket: addresses, conditions, messages between processes, and
// pages of names. The first byte says which.

#include <algorithm>

#include "address.h"
#include "conditions.h"
#include "io/text.h"
#include "job.h"
#include "numbers.h"
#include "page.h"
#include "stream/json_text.h"
#include "watch.h"

namespace {

std::string text_of(Numbers &numbers, size_t most)
{
    const Bytes bytes = numbers.take_bytes(std::min(numbers.left, most));
    return {bytes.begin(), bytes.end()};
}

// Up to a byte that says where the next one begins, as lines in a file do.
std::string line_of(Numbers &numbers)
{
    std::string line;
    while (numbers.left > 0) {
        const char letter = static_cast<char>(numbers.take(1));
        if (letter == '\n') break;
        line += letter;
    }
    return line;
}

bool has(const std::string &text, char letter)
{
    return text.find(letter) != std::string::npos;
}

// Addresses

// Where the kernel leads: nowhere but below the root, past no file that is hidden.
void check_path(const std::vector<std::string> &names)
{
    const std::optional<std::string> path = path_below(names, 0);
    const bool f_hidden = std::any_of(names.begin(), names.end(),
                                      [](const std::string &name) { return name[0] == '.'; });
    require(path.has_value() != f_hidden, "what begins with a dot leads nowhere");
    if (!path || names.empty()) return;
    require(path->front() != '/' && path->back() != '/', "a path is relative");
    require(("/" + *path).find("/.") == std::string::npos, "it leads down");
    require(path->find("//") == std::string::npos && !has(*path, '\0'), "it is names alone");
}

void check_address(const std::string &path)
{
    const std::optional<Address> address = parse_address(path);
    if (!address) return;
    size_t size = 0;
    for (const std::string &name : address->names) {
        require(!name.empty() && !has(name, '/') && !has(name, '\0'), "a name is one of a file");
        size += name.size();
    }
    require(size < 4096, "a path is short");
    check_path(address->names);
    const bool f_versioned = address->kind == Address::MEDIA || address->kind == Address::SEGMENT;
    require(f_versioned == (address->version.size() == 16), "versions where they belong");

    std::string same = page_address(address->names);
    require(same.find_first_not_of(
                "/%-._~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ") ==
                std::string::npos,
            "an address is plain");
    switch (address->kind) {
    case Address::STATUS:
    case Address::METRICS:
    case Address::PART: return;
    case Address::PAGE: break;
    case Address::MASTER: same += "index.m3u8"; break;
    case Address::DETAILS: same += "details.json"; break;
    case Address::MEDIA: same += address->version + "/media.m3u8"; break;
    case Address::SEGMENT:
        same += address->version + "/" + std::to_string(address->number) + ".ts";
        break;
    }
    const std::optional<Address> again = parse_address(same);
    if (address->names.size() == 1 && same.compare(0, 7, "/.golt/") == 0) return;
    require(again && again->kind == address->kind && again->names == address->names &&
                again->version == address->version && again->number == address->number,
            "an address that is written again is the same");
}

// Conditions

void check_verdict(const Conditions &conditions, const Verdict &verdict,
                   std::optional<uint64_t> size)
{
    switch (verdict.status) {
    case 200: require(verdict.first == 0 && verdict.size == size.value_or(0), "all of it"); break;
    case 206:
        require(size && !conditions.range.empty() && verdict.size > 0 && verdict.first < *size &&
                    verdict.size <= *size - verdict.first,
                "a range within it");
        break;
    case 304:
        require(!conditions.if_none_match.empty() || !conditions.if_modified_since.empty(),
                "only what is known needn't be sent");
        break;
    case 412:
        require(!conditions.if_match.empty() || !conditions.if_unmodified_since.empty(),
                "only conditions fail");
        break;
    case 416: require(size && !conditions.range.empty(), "a range outside"); break;
    default: require(false, "an answer that there is");
    }
}

void check_conditions(Numbers &numbers)
{
    const uint32_t kind = static_cast<uint32_t>(numbers.take(1));
    const auto modified = static_cast<int64_t>(numbers.take((kind & 1) != 0 ? 8 : 4));
    std::optional<uint64_t> size;
    if ((kind & 2) != 0) size = numbers.take((kind & 4) != 0 ? 8 : 2);
    const std::string tag = (kind & 8) != 0 ? "\"0123456789abcdef-7\"" : "";
    Conditions conditions;
    for (std::string *field :
         {&conditions.if_match, &conditions.if_none_match, &conditions.if_modified_since,
          &conditions.if_unmodified_since, &conditions.if_range, &conditions.range})
        *field = line_of(numbers);
    const Verdict verdict = judge(conditions, tag, modified, size);
    check_verdict(conditions, verdict, size);
    // Whoever has it gets no bytes of it; whoever has some of it gets the rest.
    Conditions known;
    known.if_modified_since = http_date(modified);
    if (modified > 0 && modified < int64_t{1} << 32)
        require(judge(known, "", modified, size).status == 304, "a date that is written is read");
    known.if_none_match = tag;
    if (!tag.empty()) require(judge(known, tag, modified, size).status == 304, "a tag is known");
    Conditions rest;
    rest.range = conditions.range;
    const Verdict part = judge(rest, tag, modified, size);
    check_verdict(rest, part, size);
    rest.if_range = tag;
    const Verdict same = judge(rest, tag, modified, size);
    require(same.status == part.status && same.first == part.first && same.size == part.size,
            "a range of what is the same");
    rest.if_range = "\"another\"";
    require(judge(rest, tag, modified, size).status == 200, "all of what is another");
}

// Messages

void check_job(Numbers &numbers)
{
    Job job;
    if (read_job(text_of(numbers, numbers.left), job)) {
        Job again;
        require(job.kind <= JobKind::SEGMENT, "a job that there is");
        require(read_job(bytes_of(job), again) && again.key() == job.key() && again.id == job.id &&
                    again.server == job.server && again.version == job.version,
                "a job that is sent again is the same");
    }
    Reply reply;
    // A message may be both.
    if (read_reply(bytes_of(job), reply))
        require(reply.status == Reply::LOST || reply.status >= 200, "an answer that there is");
}

void check_reply(Numbers &numbers)
{
    Reply reply, again;
    if (!read_reply(text_of(numbers, numbers.left), reply)) return;
    require(reply.status == Reply::LOST || reply.status == 200 ||
                (reply.status >= 400 && reply.status < 600),
            "an answer that there is");
    require(read_reply(bytes_of(reply), again) && again.id == reply.id &&
                again.status == reply.status && again.size == reply.size &&
                reply.text.compare(0, again.text.size(), again.text) == 0,
            "a reply that is sent again is the same");
}

// Pages

/// A page without what names can be in: its tags with the names of their attributes, a T for a text.
struct Skeleton {
    std::string shape;
    std::vector<std::string> addresses;  // of links

    explicit Skeleton(const std::string &page)
    {
        for (size_t at = 0; at < page.size();) {
            const size_t tag = std::min(page.find('<', at), page.size());
            if (tag > at) shape += 'T';
            if (tag == page.size()) break;
            at = take_tag(page, tag);
        }
    }

private:
    size_t take_tag(const std::string &page, size_t at)
    {
        while (true) {
            const size_t mark = page.find_first_of("\"'>", at);
            require(mark != std::string::npos, "a tag ends");
            const bool f_end = page[mark] == '>';
            shape.append(page, at, mark + f_end - at);
            at = mark + 1;
            if (f_end) return at;
            const size_t end = page.find(page[mark], at);
            require(end != std::string::npos, "a value ends");
            if (shape.size() > 5 && shape.compare(shape.size() - 5, 5, "href=") == 0)
                addresses.push_back(page.substr(at, end - at));
            at = end + 1;
        }
    }
};

// None of the letters that mean something, each & one of the names that there are.
void check_text(const std::string &name)
{
    const std::string text = xml_text(name);
    require(!has(text, '<') && !has(text, '>'), "no tag in a text");
    std::string plain;
    for (size_t at = 0; at < text.size(); ++at) {
        const size_t end = text[at] == '&' ? text.find(';', at) : at;
        require(end != std::string::npos, "an entity ends");
        const std::string part = text.substr(at, end - at + 1);
        plain += part == "&amp;" ? "&" : part == "&lt;" ? "<" : part == "&gt;" ? ">" : part;
        at = end;
    }
    require(plain == printable(name), "a text is the name");
}

void check_links(const Skeleton &page, const std::vector<FolderEntry> &entries)
{
    size_t found = 0;
    for (const std::string &link : page.addresses) {
        if (link.compare(0, 2, "./") != 0) continue;
        const std::optional<Address> address = parse_address(link.substr(1));
        require(address && address->names.size() == 1 &&
                    address->names[0] == entries.at(found).name,
                "a link leads to its file");
        ++found;
    }
    require(found == entries.size(), "a link for each file");
}

void check_listing(const std::vector<std::string> &names, const std::vector<FolderEntry> &entries,
                   const std::string &title)
{
    std::vector<FolderEntry> plain = entries;
    for (FolderEntry &entry : plain)
        entry.name = "a";
    const std::vector<std::string> harmless(names.size(), "a");
    const Skeleton page(listing_page(title, names, entries, false));
    require(page.shape == Skeleton(listing_page("a", harmless, plain, false)).shape,
            "names don't change a page");
    // Names with a slash at their end only look like folders.
    check_links(page, entries);
}

void check_film(const std::vector<std::string> &names, const std::string &title, size_t count,
                bool f_script)
{
    const PageParts parts = {f_script ? "script" : ""};
    const std::vector<std::string> harmless(names.size(), "a");
    require(Skeleton(film_page(parts, names)).shape == Skeleton(film_page(parts, harmless)).shape,
            "names don't change the page of a film");

    Film film;
    film.refusal = title;
    film.kinds = names.empty() ? "" : names[0];
    film.duration = static_cast<int64_t>(count);
    const Json json = Json::parse(details_json(film, count));
    static const size_t members = Json::parse(details_json({}, 0)).size();
    require(json.at("refusal").is_string() && json.size() == members, "nor a document");
}

void check_pages(Numbers &numbers)
{
    const auto kind = static_cast<uint32_t>(numbers.take(1));
    std::vector<std::string> names;
    std::vector<FolderEntry> entries;
    while (numbers.left > 0) {
        std::string name = line_of(numbers);
        // As files can be called. Those that begin with a dot aren't listed.
        name.erase(std::remove_if(name.begin(), name.end(),
                                  [](char letter) { return letter == '/' || letter == '\0'; }),
                   name.end());
        if (name.empty() || name[0] == '.' || name.size() > 255) continue;
        check_text(name);
        if (names.size() < (kind & 3)) {
            names.push_back(name);
            continue;
        }
        entries.push_back({name, (name.size() & 1) != 0, name.size() * 12345, 0});
    }
    const std::string title = names.empty() ? "Films" : names.back();
    // A page takes the time of many addresses.
    if ((kind & 8) == 0)
        check_listing(names, entries, title);
    else
        check_film(names, title, entries.size(), (kind & 4) != 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *pb_data, size_t size)
{
    begin_input();
    const CallWatch watch;
    Numbers numbers = {pb_data, size};
    switch (numbers.take(1) % 5) {
    case 0: check_address("/" + text_of(numbers, numbers.left)); break;
    case 1: check_conditions(numbers); break;
    case 2: check_job(numbers); break;
    case 3: check_reply(numbers); break;
    default: check_pages(numbers); break;
    }
    return 0;
}
