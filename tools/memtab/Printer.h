#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "Source.h"

// The record that SOURCE has at present, one member a field; of one without description, key and value as
// bytes. KEYONLY: just the members of the key.
nlohmann::ordered_json toJson(const Source& source, bool keyOnly);

// The same as "name=value name=value ..." for people.
std::string toText(const Source& source, bool keyOnly);

// As one line, whatever bytes its strings have.
std::string line(const nlohmann::ordered_json& json);

// The properties of the table besides its records.
nlohmann::ordered_json infoOf(Source& source);
