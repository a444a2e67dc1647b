// Schema lists for the compile-time checks of codec/schema_def.h. With no
// macro defined every list is right and the file compiles; each macro breaks
// one list in one way, which must stop the build (see check.cmake).
#include <cstdint>

#include "codec/schema_def.h"

struct Entry {
    uint32_t v;
};
CV_RECORD(Entry, CV_FIELD(v))
template <>
inline constexpr const CorVaneSchema* cv::kSchemaOf<Entry> = &cv::schemas::Entry;
template <>
inline constexpr bool cv::kHasSchema<Entry> = true;

#ifdef ARRAY_FIRST  // a counted array with no member before it to count it
struct Counted {
    Entry list[2];
    uint32_t count;
};
CV_RECORD(Counted, CV_ARRAY(list, count), CV_FIELD(count))
#elif defined(COUNT_IS_TEXT)  // the count is not a word
struct Counted {
    char count[4];
    Entry list[2];
};
CV_RECORD(Counted, CV_FIELD(count), CV_ARRAY(list, count))
#elif defined(COUNT_NOT_JUST_BEFORE)  // the count is a word, but not the one before
struct Counted {
    uint32_t count;
    uint32_t other;
    Entry list[2];
};
CV_RECORD(Counted, CV_FIELD(count), CV_FIELD(other), CV_ARRAY(list, count))
#else
struct Counted {
    uint32_t count;
    Entry list[2];
};
CV_RECORD(Counted, CV_FIELD(count), CV_ARRAY(list, count))
#endif

struct Pair {
    uint32_t a;
    char b[8];
};
#ifdef MEMBER_MISSING
CV_RECORD(Pair, CV_FIELD(a))
#elif defined(OUT_OF_ORDER)
CV_RECORD(Pair, CV_FIELD(b), CV_FIELD(a))
#else
CV_RECORD(Pair, CV_FIELD(a), CV_FIELD(b))
#endif
