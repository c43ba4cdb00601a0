"""The report: what its page shows, and that a browser shows it without an error and without a network."""

import json
import os
import re
import shutil
import subprocess
import sys

import pytest

import qvx
import random_files  # noqa: F401  makes the builders known
import builders
from conftest import SAMPLES
from qvx import _report, cli

SECOND = 1_000_000
HOSTILE = b"</script><img src=x onerror=alert(1)>"
PAGES = ["Tables", "Sources", "Counters", "Events", "Faults", "Files"]


def make_file(folder, times, load=lambda at: at, source=b"host-a"):
    for name, content in builders.usual_schemas().items():
        (folder / name).parent.mkdir(exist_ok=True)
        (folder / name).write_bytes(content)
    blocks = [
        builders.unit(builders.counters_block(builders.START + at, builders.usual_values(7, float(load(at)))))
        for at in times
    ]
    path = folder / "counters.bin"
    path.write_bytes(builders.usual_header(source=source) + b"".join(blocks))
    return path


def model_of(page):
    content = re.search(r'<script type="application/json" id="model">(.*?)</script>', page, re.S).group(1)
    return json.loads(content)


def test_gaps_are_where_samples_are_missing_for_more_than_five_steps(tmp_path):
    times = [at * SECOND for at in [*range(10), *range(20, 25), *range(30, 40)]]
    source = _report.model(qvx.open(make_file(tmp_path, times)))["sources"][0]
    start = builders.START
    assert (source["id"], source["step"], source["gap_count"]) == ("host-a", SECOND, 2)
    assert source["gaps"] == [
        (start + 9 * SECOND, start + 20 * SECOND),
        (start + 24 * SECOND, start + 30 * SECOND),
    ]


def test_counters_that_do_not_move_are_left_out_and_the_others_have_their_values(tmp_path):
    path = make_file(tmp_path, [0, 60 * SECOND, 120 * SECOND], load={0: 1, 60 * SECOND: 3, 120 * SECOND: 2}.get)
    (counter,) = _report.model(qvx.open(path))["counters"]
    assert (counter["name"], counter["source"], counter["units"], counter["movement"]) == ("net.load", "host-a", "n", 0.408248)
    values = {place: value for place, value in enumerate(counter["values"]) if value is not None}
    assert values == {0: 1.0, 119: 3.0, 239: 2.0}


def test_growth_is_per_second_and_unknown_where_a_sum_began_anew():
    assert _report._growth([10, None, 30, 5, 6], 2.0) == [None, None, 5.0, None, 0.5]


def test_model_of_the_sample_data_counts_every_row():
    shown = _report.model(qvx.open(SAMPLES))
    assert (shown["rows"], shown["file_count"], shown["fault_count"]) == (482, 7, 0)
    assert {e["name"]: sum(e["counts"]) for e in shown["events"]} == {
        "disk_latency": 2,
        "host_status": 96,
        "interface_report": 48,
        "job_finished": 78,
        "job_started": 78,
        "metrics": 84,
    }
    assert shown["sources"][0]["step"] == 5 * SECOND
    assert [c["name"] for c in shown["counters"]][:2] == ["node.throttle_flags", "node.memory_growth"]
    rates = next(c for c in shown["counters"] if c["name"] == "node.context_switches")
    assert rates["units"] == "switches/s" and min(v for v in rates["values"] if v is not None) >= 0


def test_names_out_of_files_stay_inside_their_element(tmp_path):
    path = make_file(tmp_path, [0, SECOND], source=HOSTILE)
    assert cli.main(["report", str(path), "-o", str(tmp_path / "r.html")]) == 0
    page = (tmp_path / "r.html").read_text()
    assert page.count("</script>") == 2 and "<img" not in page
    assert model_of(page)["sources"][0]["id"] == HOSTILE.decode()
    # No address but the name of the drawing language, which nothing fetches.
    assert set(re.findall(r"https?://[^\"']*", page)) == {"http://www.w3.org/2000/svg"}
    assert "default-src 'none'" in page


def test_files_without_rows_and_damaged_files_have_a_report(tmp_path, capsys):
    path = make_file(tmp_path, [])
    assert cli.main(["report", str(path), "-o", str(tmp_path / "r.html")]) == 0
    assert model_of((tmp_path / "r.html").read_text())["times"] is None
    path.write_bytes(path.read_bytes()[:100])
    assert cli.main(["report", str(path), "-o", str(tmp_path / "r.html")]) == 1
    assert model_of((tmp_path / "r.html").read_text())["fault_count"] == 1
    assert cli.main(["report", str(path), "-o", str(tmp_path / "r.txt")]) == 2
    assert capsys.readouterr().err.endswith("r.txt: a report is an .html file\n")
    assert sorted(os.listdir(tmp_path)) == ["counters.bin", "r.html", "schema"]


# -- In a browser

CHROMIUM, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")


@pytest.fixture(scope="module")
def browser(tmp_path_factory):
    webdriver = pytest.importorskip("selenium.webdriver", reason="selenium is not installed")
    if not CHROMIUM or not DRIVER:
        pytest.skip("chromium and chromium-driver are not installed")
    options = webdriver.ChromeOptions()
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1100,800", "--hide-scrollbars"):
        options.add_argument(argument)
    options.binary_location = CHROMIUM
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    started = webdriver.Chrome(options=options, service=webdriver.ChromeService(DRIVER))
    yield started
    started.quit()


def open_report(browser, folder, files):
    page = folder / "report.html"
    subprocess.run([sys.executable, "-m", "qvx.cli", "report", str(files), "-o", str(page)], stderr=subprocess.PIPE)
    browser.get_log("browser"), browser.get_log("performance")
    browser.get(page.as_uri())


def click_through(browser):
    """Clicks every tab and every row that can be chosen, and gives the text of each page."""
    texts = {}
    tabs = browser.find_elements("css selector", "#tabs button")
    for tab in tabs:
        tab.click()
        for row in browser.find_elements("css selector", "tr.choice"):
            row.click()
            assert row.get_attribute("class") == "choice chosen"
            shown = browser.find_element("css selector", ".chart div").text
            assert shown.startswith(row.find_element("css selector", "td").text)
        texts[tab.text] = browser.find_element("id", "content").text
    return texts


def requests_of(browser):
    events = (json.loads(entry["message"])["message"] for entry in browser.get_log("performance"))
    return [e["params"]["request"]["url"] for e in events if e["method"] == "Network.requestWillBeSent"]


def test_browser_shows_every_page_without_an_error_and_asks_no_network(browser, tmp_path):
    open_report(browser, tmp_path, SAMPLES)
    texts = click_through(browser)
    assert list(texts) == PAGES
    assert "job_started events 78 6" in texts["Tables"]
    assert "node-017.cluster.example" in texts["Sources"] and "There are none." in texts["Sources"]
    assert "node.throttle_flags" in texts["Counters"] and "Everything can be read." in texts["Faults"]
    assert browser.get_log("browser") == []
    assert all(url.startswith(("file:", "data:")) for url in requests_of(browser))
    pictures = os.environ.get("QVX_PICTURES")
    if pictures:
        browser.find_element("id", "tab-counters").click()
        browser.save_screenshot(os.path.join(pictures, "report.png"))


def test_browser_takes_hostile_names_and_damaged_files_as_text(browser, tmp_path):
    path = make_file(tmp_path, [at * SECOND for at in [0, 1, 2, 3, 20]], source=HOSTILE)
    path.write_bytes(path.read_bytes() + b"QVXZ" * 64)
    open_report(browser, tmp_path, path)
    texts = click_through(browser)
    assert HOSTILE.decode() in texts["Sources"] and "17 s" in texts["Sources"]
    assert "1 fault." in texts["Faults"]
    assert browser.find_elements("css selector", "img") == []
    assert browser.get_log("browser") == []


def test_browser_shows_a_report_of_nothing(browser, tmp_path):
    open_report(browser, tmp_path, make_file(tmp_path, []))
    assert "There are no events." in click_through(browser)["Events"]
    assert browser.get_log("browser") == []
