#include <cstdio>
#include <string>

#include "qvx/scan/data_file_reader.h"

int main(int, char** argv) {
  qvx::DataFileReader reader(argv[1]);  // the folder with the schema files
  qvx::FieldHandle job("job"), user("user");
  if (!reader.open(argv[2])) std::puts(reader.error().c_str());
  for (const qvx::Record& record : reader.records())
    if (record.type().name() == "job_started")
      std::printf("%u %s\n", record.get<unsigned>(job).value_or(0),
                  std::string(record.get<std::string_view>(user).value_or("")).c_str());
  return reader.failed() ? 1 : 0;
}
