// The JSON documents of the subcommands; docs/json.md describes them.

#ifndef HOST_STREAM_JSON_TEXT_H
#define HOST_STREAM_JSON_TEXT_H

#include <string>

#include <nlohmann/json.hpp>

#include "ts_clock.h"

using Json = nlohmann::ordered_json;

/// A document of the schema, such as "golt.info/1".
inline Json json_document(const char *schema)
{
    return Json{{"schema", schema}};
}

/// indent: -1 puts all on one line. File names may be no UTF-8; what isn't is replaced. What a
/// terminal would take for a command is escaped.
std::string json_text(const Json &json, int indent = 2);

/// Ticks of 90 kHz in milliseconds, a whole number where they are one.
inline Json json_ms(int64_t ticks)
{
    if (ticks % TICKS_PER_MS == 0) return ticks / TICKS_PER_MS;
    const int64_t us = ticks * 1000 / TICKS_PER_MS;
    return static_cast<double>(us) / 1000;
}

/// The least, the mean and the most of distances of 27 MHz, in milliseconds; there has to be one.
Json distances_json(const Distances &distances);

/// What went wrong, for a program that has asked for JSON.
std::string json_error(int status, const std::string &message);

#endif
