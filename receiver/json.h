// A result as a JSON document: every value under a name that carries its unit.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "result.h"

namespace receiver {

nlohmann::ordered_json to_json(const run_result& run);
nlohmann::ordered_json to_json(const plan_result& plan);

// Indented, with a final newline. Bytes that are not UTF-8 (a path may hold any)
// become U+FFFD.
std::string json_text(const nlohmann::ordered_json& document);

} // namespace receiver
