// Any record (or scalar payload) to and from JSON, field by field through the
// record's schema: member names are the JSON keys, nested records are
// objects, arrays are arrays of objects.
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "corvane/schema.h"

namespace cvi {

using Json = nlohmann::ordered_json;

// Every field in schema order; a counted array lists min(count, capacity)
// entries, a fixed array all of them.
Json recordToJson(const CorVaneSchema& s, const void* record);

// Fills a zeroed record from JSON. Missing fields stay zero or empty; a
// counted array whose count field is missing gets the number of entries
// given. Returns one message per problem (unknown field, wrong type, text or
// array over capacity), each naming the field's path; empty when all is well.
std::vector<std::string> recordFromJson(const CorVaneSchema& s, const Json& json, void* record);

// The record as indented "name = value" lines.
void printRecord(std::ostream& os, const CorVaneSchema& s, const void* record, int indent = 0);

}  // namespace cvi
