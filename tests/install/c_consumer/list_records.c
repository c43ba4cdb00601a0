/* Prints the tables of a data file, a line for each, and of its records the jobs that ended or the metrics.
 */
#include <inttypes.h>
#include <qvx/qvx.h>
#include <stdio.h>

static void print_tables(const qvx_reader* reader) {
  for (size_t i = 0; i < qvx_reader_table_count(reader); ++i) {
    const qvx_table* table = qvx_reader_table(reader, i);
    printf("table %s:", qvx_table_name(table));
    for (size_t field = 0; field < qvx_table_field_count(table); ++field)
      printf(" %s %s", qvx_table_field_type(table, field), qvx_table_field_name(table, field));
    printf("\n");
  }
}

static void print_record(const qvx_record* record, qvx_field* const* fields) {
  uint64_t number;
  double value;
  const char* text;
  size_t length;
  if (qvx_record_metric(record, &text, &length) && qvx_record_double(record, fields[3], 0, &value))
    printf("%" PRIu64 " %.*s %g\n", qvx_record_time(record), (int)length, text, value);
  if (!qvx_record_u64(record, fields[0], 0, &number) ||
      !qvx_record_text(record, fields[1], 0, &text, &length))
    return;
  printf("job %" PRIu64 " of %.*s on", number, (int)length, text);
  for (size_t i = 0; i < qvx_record_length(record, fields[2]); ++i)
    if (qvx_record_u64(record, fields[2], i, &number)) printf(" %" PRIu64, number);
  printf("\n");
}

int main(int argc, char** argv) {
  const char* const names[4] = {"job", "user", "nodes", "value"};
  qvx_field* fields[4];
  qvx_reader* reader = qvx_reader_create(argc > 1 ? argv[1] : "schema");
  const qvx_record* record;
  qvx_fault fault;
  int status = 0;
  if (reader == NULL) return 1;
  for (int i = 0; i < 4; ++i)
    if ((fields[i] = qvx_field_create(names[i])) == NULL) return 1;
  for (int i = 2; i < argc; ++i) {
    if (qvx_reader_open(reader, argv[i])) print_tables(reader);
    while ((record = qvx_reader_next(reader)) != NULL)
      print_record(record, fields);
    for (size_t at = 0; qvx_reader_fault(reader, at, &fault); ++at)
      printf("%s at %" PRIu64 ": %s\n", fault.kind, fault.offset, fault.words);
    status |= qvx_reader_failed(reader);
    qvx_reader_close(reader);
  }
  for (int i = 0; i < 4; ++i)
    qvx_field_destroy(fields[i]);
  qvx_reader_destroy(reader);
  return status;
}
