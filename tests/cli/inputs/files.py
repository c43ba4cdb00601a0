"""Which files there are and how they are called."""

from builders import START, Fifo, Folder, Link, counters_file, header, usual_schemas


def one_file():
    return {**usual_schemas(), "a.bin": counters_file(7)}


def two_files():
    return {**usual_schemas(), "a.bin": counters_file(1), "b.bin": counters_file(2)}


def file_named_like_an_option():
    return {**usual_schemas(), "-p": counters_file(7)}


def file_below_four_folders():
    return {**usual_schemas(), "1/2/3/4/a.bin": counters_file(7)}


def file_below_five_folders():
    return {**usual_schemas(), "1/2/3/4/5/a.bin": counters_file(7)}


def schema_folders_of_two_names():
    """The schemas that match are in "layouts"; "schema" is empty."""
    return {**usual_schemas("layouts"), "data/schema": Folder(), "data/layouts": Folder(),
            "data/a.bin": counters_file(7)}


def schemas_above_the_first_file_only():
    return {**usual_schemas("first/schema"), "first/a.bin": counters_file(1), "second/a.bin": counters_file(2)}


def data_folder():
    """A folder below the data folder, and a file without the usual extension."""
    return {**usual_schemas(), "a.bin": counters_file(1), "data/below/b.recorded": counters_file(2)}


def two_data_folders():
    return {**usual_schemas(), "first/a.bin": counters_file(1), "second/b.bin": counters_file(2)}


def data_folder_with_a_pipe():
    return {**usual_schemas(), "data/pipe": Fifo(), "data/a.bin": counters_file(1)}


def data_folder_with_a_dangling_link():
    return {**usual_schemas(), "data/gone.bin": Link("nowhere")}


def data_folder_of_links():
    return {**usual_schemas(), "data/folder": Link("../elsewhere"), "elsewhere/a.bin": counters_file(1)}


def data_folder_that_is_a_file():
    return {**usual_schemas(), "data": b""}


def same_name_in_two_folders():
    return {**usual_schemas(), "first/a.bin": counters_file(1), "second/a.bin": counters_file(2)}


def name_with_dots():
    return {**usual_schemas(), "data.d/host.2023.bin": counters_file(1)}


def name_of_a_dot_and_quotes():
    return {**usual_schemas(), ".hidden": counters_file(1), 'say "hi".bin': counters_file(2)}


def files_to_sort():
    """Each with another order: by time a, b, c; by id c, b, a; by tag b, a, c."""
    return {
        **usual_schemas(),
        "c.bin": counters_file(3, first=START + 3, source=b"host-1", tag=b"tag-3"),
        "a.bin": counters_file(1, first=START + 1, source=b"host-3", tag=b"tag-2"),
        "b.bin": counters_file(2, first=START + 2, source=b"host-2", tag=b"tag-1"),
    }


def files_of_one_time():
    return {**usual_schemas(), "b.bin": counters_file(2, source=b"host-2"), "a.bin": counters_file(1, source=b"host-1")}


def files_of_one_time_and_id():
    return {**usual_schemas(), "b.bin": counters_file(2, tag=b"tag-2"), "a.bin": counters_file(1, tag=b"tag-1")}


def files_of_one_tag():
    """Two files of one tag, the later one first, and one of an earlier tag."""
    return {
        **usual_schemas(),
        "c.bin": counters_file(3, first=START + 3, tag=b"tag-2"),
        "b.bin": counters_file(2, first=START + 2, tag=b"tag-2"),
        "a.bin": counters_file(1, first=START + 4, tag=b"tag-1"),
    }


def ids_of_full_length():
    """Ids and tags that differ in their last byte only, which does not count."""
    return {
        **usual_schemas(),
        "late.bin": counters_file(2, first=START + 2, source=b"i" * 63 + b"a", tag=b"t" * 15 + b"a"),
        "early.bin": counters_file(1, first=START + 1, source=b"i" * 63 + b"b", tag=b"t" * 15 + b"b"),
    }


def good_and_short_header():
    return {**usual_schemas(), "good.bin": counters_file(1), "short.bin": header()[:255]}


def good_and_wrong_header():
    return {**usual_schemas(), "good.bin": counters_file(1), "wrong.bin": header(magic=b"QVXE")}
