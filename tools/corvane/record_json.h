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

// Fills a zeroed record from JSON. Missing fields stay zero or empty. Numbers
// are JSON numbers (a string, a fraction, a negative or a value past 32 bits
// is refused). A counted array's count field is taken as given, as the
// library sends it: min(count, capacity) entries go on the wire, those not
// given all zero; without a count field the count is the number of entries
// given; entries past the count (which the library would not send) or past
// the capacity are refused. Returns one message per problem (unknown field,
// wrong type, number out of range, text or array over capacity), each naming
// the field's path; empty when all is well.
std::vector<std::string> recordFromJson(const CorVaneSchema& s, const Json& json, void* record);

// One line for a refused payload: the problem, or with several their number
// first ("SetX: 3 fields are wrong: ...; ...; ...").
std::string errorLine(const std::string& method, const std::vector<std::string>& errors);

// What encode, call and emit are given: a payload object, or the whole entry
// that decode --json or monitor --json printed for a body (an object with a
// "method"), whose "payload" is the payload.
struct PayloadInput {
    bool entry = false;     // the whole entry was given
    std::string method;     // the entry's method (not checked against the table)
    Json payload;           // the payload object
    std::string problem;    // an entry without a payload: why
};
PayloadInput payloadInput(const Json& json);

// The record as indented "name = value" lines.
void printRecord(std::ostream& os, const CorVaneSchema& s, const void* record, int indent = 0);

}  // namespace cvi
