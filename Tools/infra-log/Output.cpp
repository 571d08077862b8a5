// Output.cpp: records on standard output.

#include "Output.h"

#include <cstdio>

#include <nlohmann/json.hpp>

namespace
{

typedef nlohmann::ordered_json Json;

void print(std::string_view text)
{
    fwrite(text.data(), 1, text.size(), stdout);
}

std::string textOf(Moment moment)
{
    const auto day = std::chrono::floor<std::chrono::days>(moment);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(moment - day);
    char text[64];
    snprintf(text, sizeof(text), "%04d-%02u-%02uT%02d:%02d:%02d.%03d",
             static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
             static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
             static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()),
             static_cast<int>(time.subseconds().count()));
    return text;
}

template <typename Value>
void addTo(Json& json, const char* name, const std::optional<Value>& value)
{
    if (value) {
        json[name] = *value;
    }
}

Json jsonOf(const Record& record)
{
    Json json = Json::object();
    const Prefix& prefix = record.prefix;
    if (record.moment) {
        json["time"] = textOf(*record.moment);
    }
    if (prefix.level) {
        json["level"] = nameOf(*prefix.level);
    }
    addTo(json, "module", prefix.module);
    addTo(json, "revision", prefix.revision);
    addTo(json, "thread", prefix.thread);
    addTo(json, "file", prefix.file);
    addTo(json, "line", prefix.line);
    addTo(json, "function", prefix.function);
    if (record.goesOn) {
        json["continued"] = true;
    }
    std::string_view message = record.text.substr(prefix.length);
    if (message.ends_with('\n')) {
        message.remove_suffix(1);
    }
    json["message"] = message;
    return json;
}

} // namespace

void printText(const Record& record)
{
    print(record.text);
    if (!record.text.ends_with('\n')) {
        print("\n");
    }
}

void printJson(const Record& record)
{
    print(jsonOf(record).dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
}
