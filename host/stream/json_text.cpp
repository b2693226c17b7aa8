#include "json_text.h"

#include <fmt/format.h>

#include "io/text.h"

std::string json_text(const Json &json, int indent)
{
    const std::string text = json.dump(indent, ' ', false, Json::error_handler_t::replace);
    // Below a blank all is escaped; not so U+007F to U+009F, which occur only in strings.
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (byte == 0x7F) {
            out += "\\u007f";
        } else if (byte == 0xC2 && next < 0xA0) {
            out += fmt::format("\\u{:04x}", next);
            ++i;
        } else {
            out += text[i];
        }
    }
    return out + '\n';
}

Json distances_json(const Distances &distances)
{
    return {{"min", json_ms(distances.least / PCR_PER_TICK)},
            {"mean", json_ms(distances.mean() / PCR_PER_TICK)},
            {"max", json_ms(distances.most / PCR_PER_TICK)}};
}

std::string json_error(int status, const std::string &message)
{
    Json json = json_document("golt.error/1");
    json["status"] = status;
    json["message"] = without_passwords(message);
    return json_text(json, -1);
}
