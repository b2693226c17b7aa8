#include "json_text.h"

std::string json_error(int status, const std::string &message)
{
    Json json = json_document("golt.error/1");
    json["status"] = status;
    json["message"] = message;
    return json_text(json, -1);
}
