"""Schema files, right and wrong."""

from builders import (COUNTERS, EVENTS, USUAL_COUNTERS, USUAL_EVENTS, counter, counters_file, counters_schema,
                      event_schema, event_type, events_block, events_file, field, group, header, schema_path, text,
                      unit, usual_schemas)
from inputs.driver import UP


def _without(value, name):
    return {key: kept for key, kept in value.items() if key != name}


def _events_schema_file(content):
    return {**usual_schemas(), schema_path(EVENTS): content, "a.bin": events_file(events_block([UP]))}


def _counters_schema_file(content):
    return {**usual_schemas(), schema_path(COUNTERS): content, "a.bin": counters_file(7)}


def event_schema_that_is_no_json():
    return _events_schema_file(b'{"types": [')


def event_schema_that_is_a_counters_schema():
    return _events_schema_file(text(USUAL_COUNTERS))


def event_schema_without_version():
    return _events_schema_file(text(_without(USUAL_EVENTS, "qvx_version")))


def event_schema_of_version_1_6_0():
    return _events_schema_file(text({**USUAL_EVENTS, "qvx_version": "1.6.0"}))


def event_schemas_of_known_versions():
    old = bytes.fromhex("e2" * 16)
    return {schema_path(EVENTS): text({**USUAL_EVENTS, "qvx_version": "1.4.9"}),
            schema_path(old): text({**USUAL_EVENTS, "qvx_version": "1.0.0"}),
            "a.bin": header(events=[EVENTS, old]) + unit(events_block([UP]), events_block([UP], schema=1))}


def event_type_without_fields_member():
    return _events_schema_file(text(event_schema({"name": "broken", "size": 4})))


def event_type_of_size_0():
    return _events_schema_file(text(event_schema(event_type("good", 1, field("v", "uint8_t", 0, 1)),
                                                 event_type("nothing", 0))))


def event_field_without_type():
    return _events_schema_file(text(event_schema(
        event_type("broken", 1, _without(field("v", "uint8_t", 0, 1), "type_name")))))


def event_field_without_index():
    return _events_schema_file(text(event_schema(
        event_type("link", 8, _without(field("at", "timestamp", 0, 8), "index")))))


def event_field_of_unknown_type():
    return _events_schema_file(text(event_schema(event_type("broken", 8, field("v", "uint128_t", 0, 8)), name="lab")))


def event_type_in_itself():
    return _events_schema_file(text(event_schema(event_type("loop", 8, field("again", "loop", 0, 8)))))


def event_array_lengths():
    """65537 counts as 1, 65536 and all below 0 as none, which is 1."""
    fields = [field("plain", "uint8_t", 0, 1), field("one", "uint8_t", 0, 1, length=1),
              field("wrapped", "uint8_t", 0, 1, length=65537), field("zero", "uint8_t", 0, 1, length=65536),
              field("below", "uint8_t", 0, 1, length=-65534)]
    return _events_schema_file(text(event_schema(event_type("lengths", 1, *fields))))


def counters_schema_that_is_no_json():
    return _counters_schema_file(b"not JSON")


def counters_schema_that_is_an_event_schema():
    return _counters_schema_file(text(USUAL_EVENTS))


def counters_schema_of_version_2():
    return _counters_schema_file(text({**USUAL_COUNTERS, "version": "2.0.0"}))


def counters_group_without_sets():
    return _counters_schema_file(text(counters_schema(_without(group(counter("packets")), "num_counter_sets"))))


def counter_without_units():
    return _counters_schema_file(text(counters_schema(group(counter("packets"), _without(counter("load"), "units")))))


def counters_with_a_text_of_length_0():
    """The counters behind the empty text keep the offset 0 of the file, and so read the first value."""
    return _counters_schema_file(text(counters_schema(
        group(counter("packets"), counter("empty", "STRING"), counter("behind")))))
