/* The C interface of the library: reads data files record by record.
 *
 *   qvx_reader* reader = qvx_reader_create("schema");
 *   qvx_field* job = qvx_field_create("job");
 *   if (qvx_reader_open(reader, "events.bin"))
 *     while ((record = qvx_reader_next(reader)) != NULL)
 *       if (qvx_record_u64(record, job, 0, &number)) ...
 *   if (qvx_reader_failed(reader)) complain(qvx_reader_error(reader));
 *
 * Functions that return int give 1 for yes and 0 for no, and on 0 leave alone what they were to fill. Texts
 * and everything else that is pointed to belong to the library. One thread at a time uses a reader and its
 * fields.
 */
#ifndef QVX_QVX_H
#define QVX_QVX_H

#include <stddef.h>
#include <stdint.h>

#define QVX_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* What the records of one type look like. Valid until the reader reads on. */
typedef struct qvx_table qvx_table;
/* A record where it stands. Valid until the reader reads on. */
typedef struct qvx_record qvx_record;
typedef struct qvx_reader qvx_reader;
typedef struct qvx_field qvx_field;

/* "major.minor.patch" of the library. */
QVX_EXPORT const char* qvx_library_version(void);

/* NULL when memory is short. A reader reads one file after another and keeps their schemas. */
QVX_EXPORT qvx_reader* qvx_reader_create(const char* schema_folder);
QVX_EXPORT void qvx_reader_destroy(qvx_reader* reader);

/* Opens a file, plain or compressed by gzip, in place of the one before. 0: qvx_reader_error says why. */
QVX_EXPORT int qvx_reader_open(qvx_reader* reader, const char* path);
/* Ends the reading of the file that is open. */
QVX_EXPORT void qvx_reader_close(qvx_reader* reader);

/* The tables that the header of the file names: a table for each event type, and "counters". Samples of
 * metrics have tables that only their records name. */
QVX_EXPORT size_t qvx_reader_table_count(const qvx_reader* reader);
/* NULL when there are fewer. */
QVX_EXPORT const qvx_table* qvx_reader_table(const qvx_reader* reader, size_t index);

/* The next record, or NULL at the end or when the file failed. */
QVX_EXPORT const qvx_record* qvx_reader_next(qvx_reader* reader);

/* Whether the file could not be read to its end, and the words of the fault that ended it, else "". */
QVX_EXPORT int qvx_reader_failed(const qvx_reader* reader);
QVX_EXPORT const char* qvx_reader_error(const qvx_reader* reader);

/* What is wrong with the file as far as it was read, in order. */
typedef struct qvx_fault {
  uint64_t offset;   /* in the file, unpacked if the whole file is compressed */
  const char* kind;  /* such as "page_damaged" */
  const char* words; /* one line without its end */
} qvx_fault;
QVX_EXPORT size_t qvx_reader_fault_count(const qvx_reader* reader);
QVX_EXPORT int qvx_reader_fault(const qvx_reader* reader, size_t index, qvx_fault* fault);

typedef enum qvx_table_kind {
  QVX_EVENT = 0,
  QVX_COUNTERS = 1, /* a field for each counter, named "group.counter", with a value for each counter set */
  QVX_SAMPLE = 2    /* of a metric: one field, "value" */
} qvx_table_kind;

QVX_EXPORT const char* qvx_table_name(const qvx_table* table);
QVX_EXPORT qvx_table_kind qvx_table_kind_of(const qvx_table* table);
QVX_EXPORT size_t qvx_table_field_count(const qvx_table* table);
/* NULL when there are fewer. */
QVX_EXPORT const char* qvx_table_field_name(const qvx_table* table, size_t index);
/* "bool", "u8" to "u64", "i8" to "i64", "f32", "f64", "text" or "record"; NULL when there are fewer. */
QVX_EXPORT const char* qvx_table_field_type(const qvx_table* table, size_t index);

/* Names a field of records of any type, looked up once in each. "a.b" is field "b" in the nested record "a",
 * "a[2]" one value of an array, "group[2].counter" a counter in one counter set. NULL when memory is short.
 */
QVX_EXPORT qvx_field* qvx_field_create(const char* name);
QVX_EXPORT void qvx_field_destroy(qvx_field* field);

QVX_EXPORT const qvx_table* qvx_record_table(const qvx_record* record);
/* When its block, or batch, was written: microseconds since 1970-01-01 00:00 UTC. */
QVX_EXPORT uint64_t qvx_record_time(const qvx_record* record);

/* Values of a field; 1 unless it is an array, 0 when the record has no such field. */
QVX_EXPORT size_t qvx_record_length(const qvx_record* record, qvx_field* field);
/* A value of a field. 0 when there is none, or when its type has numbers that the asked one cannot hold
 * exactly. */
QVX_EXPORT int qvx_record_u64(const qvx_record* record, qvx_field* field, size_t index, uint64_t* value);
QVX_EXPORT int qvx_record_i64(const qvx_record* record, qvx_field* field, size_t index, int64_t* value);
QVX_EXPORT int qvx_record_double(const qvx_record* record, qvx_field* field, size_t index, double* value);
/* The text does not end in NUL. */
QVX_EXPORT int qvx_record_text(const qvx_record* record, qvx_field* field, size_t index, const char** text,
                               size_t* length);

/* The records of one table in all the files as batches of columns, in the Arrow C stream interface, which
 * https://arrow.apache.org/docs/format/CStreamInterface.html fixes. Without a schema folder, NULL, each
 * file's is searched for beside it and up to four folders above. The receiver releases the stream. Where
 * something is wrong with a file, all batches that can be read come first, then get_next gives EIO and
 * get_last_error the first fault. 0: there is no such table, or memory is short; `words`, of `room` bytes,
 * says why. */
struct ArrowArrayStream;
QVX_EXPORT int qvx_open_arrow(const char* const* paths, size_t count, const char* schema_folder,
                              const char* table, struct ArrowArrayStream* stream, char* words, size_t room);

/* Of samples: the name of the metric, and the value of a label. */
QVX_EXPORT int qvx_record_metric(const qvx_record* record, const char** text, size_t* length);
QVX_EXPORT int qvx_record_label(const qvx_record* record, const char* name, const char** text,
                                size_t* length);

#ifdef __cplusplus
}
#endif

#endif
