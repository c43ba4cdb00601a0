# The public headers: they are installed, and what they declare is exported by the shared library. A public
# header includes no other ones of ours.
set(QVX_PUBLIC_HEADERS
  qvx/columns/arrow_c.h
  qvx/columns/column_type.h
  qvx/columns/dataset.h
  qvx/columns/faults.h
  qvx/columns/query.h
  qvx/columns/survey.h
  qvx/columns/table_stream.h
  qvx/counters/counter_data.h
  qvx/counters/counter_group.h
  qvx/counters/counters_block.h
  qvx/counters/counters_json.h
  qvx/counters/counters_schema.h
  qvx/counters/counters_tables.h
  qvx/data/blob_page.h
  qvx/data/block.h
  qvx/data/encoded_payload.h
  qvx/data/file_header.h
  qvx/data/page.h
  qvx/data/page_block.h
  qvx/data/page_buffer.h
  qvx/data/schema/influx_lines.h
  qvx/data/schema/record_influx.h
  qvx/data/schema/record_json.h
  qvx/data/schema/schema.h
  qvx/data/schema/schema_json.h
  qvx/data/schema/schema_writer.h
  qvx/data/schema/serializer.h
  qvx/data/schema/type_system.h
  qvx/data/schema_id.h
  qvx/data/source.h
  qvx/data/source_list.h
  qvx/data/write/data_file.h
  qvx/data/write/data_writer.h
  qvx/data/write/existing_file.h
  qvx/data/write/known_files.h
  qvx/data/write/node_info.h
  qvx/data/write/output_folder.h
  qvx/data/write/page_block_writer.h
  qvx/data/write/path_template.h
  qvx/data/write/schemas_in_force.h
  qvx/host/adapters.h
  qvx/host/client_id.h
  qvx/metrics/block_tables.h
  qvx/metrics/histogram.h
  qvx/metrics/histogram_store.h
  qvx/metrics/labels_block.h
  qvx/metrics/metric_filter.h
  qvx/metrics/metrics_batch.h
  qvx/metrics/metrics_output.h
  qvx/metrics/metrics_parser.h
  qvx/metrics/metrics_store.h
  qvx/metrics/preallocated_vector.h
  qvx/metrics/reverse_index.h
  qvx/metrics/string_table.h
  qvx/metrics/symbol_table.h
  qvx/metrics/time_series.h
  qvx/metrics/wire.h
  qvx/plan/record_plan.h
  qvx/qvx.h
  qvx/scan/chain_walk.h
  qvx/scan/data_file_reader.h
  qvx/scan/data_input.h
  qvx/scan/file_scan.h
  qvx/scan/record_run.h
  qvx/scan/records.h
  qvx/scan/type_cache.h
  qvx/scan/unit_walk.h
  qvx/scan/visitor.h
  qvx/support/bytes.h
  qvx/support/clock.h
  qvx/support/file_descriptor.h
  qvx/support/json_parse.h
  qvx/support/json_text.h
  qvx/support/json_value.h
  qvx/support/layout_table.h
  qvx/support/log.h
  qvx/support/log_recorder.h
  qvx/support/output_sink.h
  qvx/support/printable.h
  qvx/support/version.h
)

# qvx_export_wrappers(<variable>): a folder to be searched before the source tree. It holds a header for each
# public one, which includes it with default visibility.
function(qvx_export_wrappers variable)
  set(folder ${PROJECT_BINARY_DIR}/export)
  foreach(header IN LISTS QVX_PUBLIC_HEADERS)
    cmake_path(GET header PARENT_PATH header_folder)
    # Relative, so that nothing in the build depends on where it is made.
    file(RELATIVE_PATH original ${folder}/${header_folder} ${PROJECT_SOURCE_DIR}/${header})
    file(CONFIGURE OUTPUT ${folder}/${header} @ONLY CONTENT
"#pragma GCC visibility push(default)
#include \"@original@\"
#pragma GCC visibility pop
")
  endforeach()
  set(${variable} ${folder} PARENT_SCOPE)
endfunction()
