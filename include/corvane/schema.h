/*
 * libCorvane: record schemas and generic record operations.
 *
 * Every record type is described once by a schema: its fields in declaration
 * order, each with its kind, byte offset and capacity. The wire tag of field
 * number i (counting from 0) is i + 3. The typed operations
 * corVane_<Record>_copy/_clean/_serialize_lg/_serialize/_unserialize are thin
 * wrappers over the generic operations declared here, which tools (the wire
 * inspector, fuzzers) use to handle any record by its schema.
 *
 * Wire format, all words big-endian whatever the host:
 *   u32 element      tag, 4, value                                  12 bytes
 *   string element   tag, L, the n characters, NUL, padding          8 + L bytes
 *                    L = ((n + 1) rounded down to a multiple of 4) + 4; the
 *                    padding bytes are not written
 *   inline record    the nested record's own elements (tags from 3); its tag
 *                    number in the parent is reserved and never written
 *   record array     the count field's u32 element, then min(count, capacity)
 *                    inline entries; the array's tag number is never written
 *   fixed array      exactly capacity inline entries; no count element
 */
#ifndef CORVANE_SCHEMA_H
#define CORVANE_SCHEMA_H

#include "corvane/types.h"

CORVANE_BEGIN_DECLS

/* Kinds of field. */
#define CORVANE_FIELD_U32 0u         /* 32-bit word, u32 element */
#define CORVANE_FIELD_TEXT 1u        /* char[capacity], string element */
#define CORVANE_FIELD_RECORD 2u      /* nested record, written inline */
#define CORVANE_FIELD_ARRAY 3u       /* record[capacity]; count in the previous field */
#define CORVANE_FIELD_FIXED_ARRAY 4u /* record[capacity]; always carried full */

/* Schema flags. */
/* On a failure, also log an "Error Before" line for the reserved tag numbers
 * of later nested records and arrays, not only for the written fields. */
#define CORVANE_SCHEMA_ERROR_BEFORE_RESERVED 0x1u

/* The first field's tag; field i has tag CORVANE_FIRST_TAG + i. */
#define CORVANE_FIRST_TAG 3u

typedef struct CorVaneSchema CorVaneSchema;

typedef struct CorVaneField {
    const char *name;             /* member name, as in the C struct */
    const CorVaneSchema *record;  /* schema of a nested record or array entry, else NULL */
    uint32_t offset;              /* byte offset of the member in the struct */
    uint16_t capacity;            /* text: bytes with the NUL; arrays: entries; else 0 */
    uint8_t kind;                 /* CORVANE_FIELD_* */
    uint8_t reserved;
} CorVaneField;

struct CorVaneSchema {
    const char *name;             /* record type name, e.g. "VoiceProfile" */
    const CorVaneField *fields;   /* fieldCount entries, in declaration order */
    uint32_t size;                /* sizeof the C struct */
    uint16_t fieldCount;
    uint16_t flags;               /* CORVANE_SCHEMA_* */
};

/* The record types of the interface, in a fixed order. */
CORVANE_API uint32_t corVane_recordCount(void);
CORVANE_API const CorVaneSchema *corVane_recordSchemaAt(uint32_t index);
/* NULL when no record type has that name. */
CORVANE_API const CorVaneSchema *corVane_recordSchema(const char *name);

/*
 * Generic record operations. They behave exactly as the typed operations of
 * the record the schema describes (log lines included), and they are what
 * the typed operations call. A schema of no fields (whose field list may
 * then be NULL) describes a record with nothing on the wire: serialize_lg
 * gives 0, and the other operations return 0 without reading or writing a
 * byte, the cursor left where it was.
 */
CORVANE_API uint32_t corVane_record_copy(const CorVaneSchema *schema, void *destination,
                                         const void *source);
CORVANE_API void corVane_record_clean(const CorVaneSchema *schema, void *record);
CORVANE_API uint32_t corVane_record_serialize_lg(const CorVaneSchema *schema, const void *record);
CORVANE_API uint32_t corVane_record_serialize(const CorVaneSchema *schema, const void *record,
                                              uint8_t **cursor);
CORVANE_API uint32_t corVane_record_unserialize(const CorVaneSchema *schema, void *record,
                                                const uint8_t **cursor);
CORVANE_API uint32_t corVane_record_unserialize_bounded(const CorVaneSchema *schema, void *record,
                                                        const uint8_t **cursor,
                                                        const uint8_t *end);

/*
 * Declares the operations of record type T:
 *
 *   uint32_t corVane_T_copy(T *destination, const T *source);
 *       Field by field; texts are cut to capacity - 1 characters and always
 *       NUL-terminated; arrays copy the count as it stands and
 *       min(count, capacity) entries. Returns 0. The two records are the
 *       same one (nothing is done) or do not overlap at all: as for memcpy,
 *       a partly overlapping pair is not allowed.
 *   void corVane_T_clean(T *record);
 *       Records own no memory; accepts NULL and does nothing else.
 *   uint32_t corVane_T_serialize_lg(const T *record);
 *       The exact number of bytes corVane_T_serialize writes for a record it
 *       accepts. A text with no NUL within its field (which
 *       corVane_T_serialize refuses) is counted as capacity characters, so
 *       the result is never less than what corVane_T_serialize writes.
 *   uint32_t corVane_T_serialize(const T *record, uint8_t **cursor);
 *       Writes the elements at *cursor, which must have serialize_lg bytes
 *       of room, and stores the advanced cursor back. Returns 0, or 4 when a
 *       text is not NUL-terminated within its capacity (nothing more is
 *       written; the cursor stays at the start of that element).
 *   uint32_t corVane_T_unserialize(T *record, const uint8_t **cursor);
 *       Reads the elements at *cursor. It trusts the buffer to hold the
 *       whole encoding: it does not know where the buffer ends. Returns 0,
 *       or 4 on the first element whose tag is not the expected one or whose
 *       text does not fit its field; the cursor is then left at the start of
 *       that element and the fields read before it keep their new values.
 *   uint32_t corVane_T_unserialize_bounded(T *record, const uint8_t **cursor,
 *                                          const uint8_t *end);
 *       The same, never reading at or beyond end: an element whose header,
 *       value or declared length runs past end, or a text with no NUL
 *       before end, gives 4 with one log line, the cursor at that element.
 */
#define CORVANE_RECORD_OPS(T)                                                                    \
    CORVANE_API uint32_t corVane_##T##_copy(T *destination, const T *source);                   \
    CORVANE_API void corVane_##T##_clean(T *record);                                            \
    CORVANE_API uint32_t corVane_##T##_serialize_lg(const T *record);                           \
    CORVANE_API uint32_t corVane_##T##_serialize(const T *record, uint8_t **cursor);            \
    CORVANE_API uint32_t corVane_##T##_unserialize(T *record, const uint8_t **cursor);          \
    CORVANE_API uint32_t corVane_##T##_unserialize_bounded(T *record, const uint8_t **cursor,   \
                                                           const uint8_t *end);

CORVANE_END_DECLS

#endif /* CORVANE_SCHEMA_H */
