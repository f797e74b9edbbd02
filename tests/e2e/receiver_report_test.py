"""The page that --report writes, opened in a browser: what it shows, in both colour
schemes, at two widths and on paper. The numbers are those of --json.

Needs Debian's python3-selenium, chromium and chromium-driver.
"""

import base64
import re
import shutil

import pytest

from conftest import DEADLINE, MESSAGE_SIZE, random_bytes
from replay_receiver import (  # noqa: F401: most of these are fixtures
    QUICK,
    both,
    receive,
    udp_port,
)

# Long enough at this pace for several slices of the rate, short enough for a test.
# The pace itself is not tested here.
DATA = random_bytes(30 * MESSAGE_SIZE)
PACE = ("--mbps", "20")
LENIENT = ("--tolerance", "99", *QUICK)
# Where the receiver's source differs from the sender's, and its first difference.
ALTERED = 2 * MESSAGE_SIZE + 7
WIDTHS = (1200, 400)
CONTRAST = 4.5
UNITS = {"ns": 1, "µs": 10**3, "ms": 10**6, "s": 10**9}
RATES = {"bps": 1, "kbps": 10**3, "Mbps": 10**6, "Gbps": 10**9}


# ------------------------------------------------------------------- the browser


@pytest.fixture(scope="module")
def chromium(tmp_path_factory):
    webdriver = pytest.importorskip(
        "selenium.webdriver", reason="python3-selenium is not installed"
    )
    from selenium.webdriver.chrome.service import Service

    programs = {name: shutil.which(name) for name in ("chromium", "chromedriver")}
    for name, path in programs.items():
        if path is None:
            pytest.skip(f"{name} is not installed")
    options = webdriver.ChromeOptions()
    options.binary_location = programs["chromium"]
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    for word in (
        "--headless=new",
        "--no-sandbox",
        "--disable-gpu",
        "--disable-dev-shm-usage",
        f"--user-data-dir={tmp_path_factory.mktemp('chromium')}",
    ):
        options.add_argument(word)
    browser = webdriver.Chrome(
        service=Service(programs["chromedriver"]), options=options
    )
    browser.set_page_load_timeout(DEADLINE)
    yield browser
    browser.quit()


class Page:
    """A report in the browser, beside what --json says about the run."""

    def __init__(self, browser, path, result):
        self._browser = browser
        self._path = path
        self.result = result

    def show(self, width=1200, scheme="light", media="screen"):
        self._command(
            "Emulation.setDeviceMetricsOverride",
            width=width, height=900, deviceScaleFactor=1, mobile=False,
        )
        self._command(
            "Emulation.setEmulatedMedia",
            media=media,
            features=[{"name": "prefers-color-scheme", "value": scheme}],
        )
        self._browser.get_log("browser")  # of the page before
        self._browser.get(self._path.as_uri())
        return self

    def run(self, script, *values):
        return self._browser.execute_script(script, *values)

    def text(self, selector):
        """The visible text of the one element that this selects."""
        (text,) = self.texts(selector)
        return text

    def texts(self, selector):
        return self.run(
            "return [...document.querySelectorAll(arguments[0])]"
            ".filter(e => e.checkVisibility()).map(e => e.innerText)",
            selector,
        )

    def figures(self, section):
        """The figures below a chart, by their names."""
        names = self.texts(f"#{section} .figures dt")
        return dict(zip(names, self.texts(f"#{section} .figures dd")))

    def row(self, name):
        """The value beside this name in the table about the run."""
        rows = zip(self.texts("#run th"), self.texts("#run td"))
        return dict(rows)[name]

    def log(self):
        return self._browser.get_log("browser")

    def pdf(self):
        return base64.b64decode(self._command("Page.printToPDF")["data"])

    def accessible_images(self):
        """(name, description) of each image that a screen reader meets."""
        tree = self._command("Accessibility.getFullAXTree")["nodes"]
        return [
            (node["name"]["value"], node.get("description", {}).get("value", ""))
            for node in tree
            if not node["ignored"] and node["role"]["value"] in ("image", "img")
        ]

    def _command(self, name, **values):
        return self._browser.execute_cdp_cmd(name, values)


@pytest.fixture
def page(request, tmp_path):
    """page(run) is the report of a receiver that was given REPORT, when it has
    ended. The browser starts only when a page is asked for."""

    def load(run):
        run.wait()
        browser = request.getfixturevalue("chromium")
        return Page(browser, tmp_path / "report.html", run.result).show()

    return load


@pytest.fixture
def keeping(tmp_path):
    """The words by which a receiver writes its report."""
    return ("--report", tmp_path / "report.html")


# ---------------------------------------------------------------------- the runs


def altered(data):
    return data[:ALTERED] + bytes([data[ALTERED] ^ 0xFF]) + data[ALTERED + 1 :]


WITH_ARRIVALS = ["udp", "tcp", "faults over udp", "faults over tcp"]


@pytest.fixture
def page_of(page, both, receive, udp_port, data_file, keeping):
    """page_of(kind) is the page of a run of this kind."""

    def make(kind):
        path = data_file(DATA)
        if kind == "nothing":
            return page(receive(
                "--protocol", "udp", "--port", str(udp_port), "--filepath", path,
                "--duration", "0.2", *keeping,
            ))
        sent = data_file(altered(DATA), "sent") if "faults" in kind else path
        return page(both(
            *PACE, protocol=kind[-3:],
            sender=("--filepath", sent),
            receiver=("--filepath", path, *LENIENT, *keeping),
        ))

    return make


@pytest.fixture(params=[*WITH_ARRIVALS, "nothing"])
def shown(request, page_of):
    return page_of(request.param)


@pytest.fixture(params=WITH_ARRIVALS)
def arrived(request, page_of):
    return page_of(request.param)


# -------------------------------------------------------------------- what it says


def grouped(number):
    return f"{number:,}"


def value(text, units):
    """A number with one of these units, and how far rounding may have moved it."""
    number, unit = text.split()
    digits = len(number.partition(".")[2])
    return float(number) * units[unit], 0.5 * 10**-digits * units[unit]


def assert_close(text, exact, units):
    seen, rounding = value(text, units)
    assert seen == pytest.approx(exact, abs=rounding * 1.001), text


def test_the_verdict_and_the_exit_status_stand_on_top(shown):
    status = shown.result["exit_status"]
    verdict = shown.text("h1")
    messages, size = shown.result.received
    expected = {
        0: f"As expected: {messages} messages, {grouped(size)} bytes, "
        "every byte in its place.",
        1: f"1 {'byte' if shown.result['protocol'] == 'tcp' else 'message'} altered: ",
        7: "Nothing arrived: the time was up (--duration).",
    }[status]
    assert verdict.startswith(expected)
    assert shown.text(".status").startswith(f"Exit status {status}: ")
    top = shown.run(
        "const box = document.querySelector('h1').getBoundingClientRect();"
        "return [box.top, box.bottom, box.width]"
    )
    assert 0 < top[0] < top[1] < 300 and top[2] > 300


def test_the_tiles_show_the_numbers_of_the_json(shown):
    messages, size = shown.result.received
    measured = shown.result.measured
    names = shown.texts(".tiles dt")
    assert names == ["Messages", "Bytes", "Duration", "Rate"]
    values = shown.texts(".tiles dd:not(.more)")
    assert values[:2] == [grouped(messages), grouped(size)]
    if measured["duration_ns"] == 0:
        assert values[2:] == ["none", "none"]
        return
    assert_close(values[2], measured["duration_ns"], UNITS)
    assert_close(values[3], measured["rate_bps"], RATES)
    assert shown.texts(".tiles .more")[0] == (
        f"of {grouped(shown.result.expected[0])} expected"
    )


def test_the_figures_below_the_charts_are_those_of_the_json(arrived):
    names = ("min", "p50", "p90", "p99", "p99.9", "max")
    gaps = arrived.figures("gaps")
    sizes = arrived.figures("sizes")
    assert list(gaps) == list(sizes) == list(names)
    for name in names:
        key = name.replace(".", "_")
        assert_close(gaps[name], arrived.result.measured["gaps"][f"{key}_ns"], UNITS)
        exact = arrived.result.measured["sizes"][f"{key}_bytes"]
        assert sizes[name] == grouped(exact)


def test_the_run_is_described(shown):
    result = shown.result
    assert shown.row("From") == f"{result['protocol']} {result['address']}"
    assert result["source"] in shown.row("Compared")
    assert shown.row("Ended")
    words = shown.text("#command code").split()
    assert words[0].endswith("replay_receiver") and "--report" in words


def test_a_fault_is_shown_with_both_sides(page, both, data_file, keeping):
    run = page(both(
        sender=("--filepath", data_file(altered(DATA), "sent")),
        receiver=("--filepath", data_file(DATA), *QUICK, *keeping),
    ))
    expected = DATA[ALTERED : ALTERED + 16]
    received = altered(DATA)[ALTERED : ALTERED + 16]
    assert run.texts("#faults tbody th") == ["offset 20,487"]
    (what,) = run.texts("#faults tbody td")
    assert what.startswith("1 byte altered (message 3, its byte 7)")
    assert run.texts("#faults .hex dd") == [expected.hex(" "), received.hex(" ")]
    assert run.texts("#faults mark") == [expected[:1].hex(), received[:1].hex()]


def test_a_run_without_a_source_says_that_nothing_was_compared(
    page, both, data_file, keeping
):
    run = page(both(
        sender=("--filepath", data_file(DATA)), receiver=(*QUICK, *keeping)
    ))
    assert "not compared: no --filepath" in run.text("h1")
    assert run.row("Compared") == "not compared: no --filepath"


def test_a_path_is_shown_as_it_is_whatever_it_holds(page, both, data_file, keeping):
    name = "<img src=x onerror=alert(1)>&amp;\"'{{run}}"
    run = page(both(
        "--filepath", data_file(DATA[:1000], name), receiver=(*QUICK, *keeping)
    ))
    assert name in run.row("Compared")
    assert run.run("return document.images.length") == 0
    assert run.log() == []


# ------------------------------------------------------------------- how it looks

VISIBLE_CHARTS = """
return [...document.querySelectorAll('figure')].map(figure => {
    const seen = [...figure.querySelectorAll('svg')].filter(e => e.checkVisibility());
    const box = e => {
        const {left, right, top, bottom} = e.getBoundingClientRect();
        return [left, right, top + scrollY, bottom + scrollY];
    };
    return seen.map(svg => ({
        box: box(svg),
        texts: [...svg.querySelectorAll('text')].map(e => [e.textContent, box(e)]),
    }));
});
"""


@pytest.mark.parametrize("width", WIDTHS)
def test_nothing_reaches_out_of_the_window(shown, width):
    shown.show(width)
    assert shown.run("return document.documentElement.scrollWidth") <= width
    outside = shown.run(
        "return [...document.querySelectorAll('body *')].filter(e => {"
        "  const box = e.getBoundingClientRect();"
        "  return e.checkVisibility() && (box.left < 0 || box.right > innerWidth);"
        "}).map(e => e.outerHTML.slice(0, 80))"
    )
    assert outside == []


@pytest.mark.parametrize("width", WIDTHS)
def test_each_chart_is_drawn_once_with_all_its_labels_inside(shown, width):
    figures = shown.show(width).run(VISIBLE_CHARTS)
    assert len(figures) == (0 if shown.result.received == (0, 0) else 3)
    for charts in figures:
        (chart,) = charts
        left, right, top, bottom = chart["box"]
        assert right - left > 0.7 * min(width, 900) and bottom - top > 150
        assert 0 <= left and right <= width
        for text, box in chart["texts"]:
            assert left - 0.5 <= box[0] and box[1] <= right + 0.5, text
            assert top - 0.5 <= box[2] and box[3] <= bottom + 0.5, text


@pytest.mark.parametrize("width", WIDTHS)
def test_no_label_of_a_chart_covers_another(shown, width):
    for (chart,) in shown.show(width).run(VISIBLE_CHARTS):
        texts = chart["texts"]
        # Letters do not fill the whole height of their line.
        for at, (one, (left, right, top, bottom)) in enumerate(texts):
            for other, (l, r, t, b) in texts[at + 1 :]:
                apart = right <= l or r <= left or bottom <= t + 4 or b <= top + 4
                assert apart, (one, other)


def test_charts_are_in_the_order_of_their_values(arrived):
    marks = arrived.run(
        "return [...document.querySelectorAll('#gaps .wide .mark')]"
        ".map(e => e.getBoundingClientRect().left)"
    )
    assert len(marks) == 5 and marks == sorted(marks)


def test_the_wanted_rate_is_a_line_across_the_chart(arrived):
    lines = arrived.run(
        "return [...document.querySelectorAll('#rate .wide .wanted')]"
        ".map(e => e.getBoundingClientRect().width)"
    )
    (width,) = lines
    assert width > 600
    assert "wanted 20 Mbps" in arrived.text("#rate h2 + p")


# The colour of each visible text and of what lies behind it, as red, green, blue.
COLOURS = """
const numbers = colour => colour.match(/[0-9.]+/g).map(Number);
const opaque = colour => numbers(colour).length === 3 || numbers(colour)[3] === 1;
const behind = e => {
    while (e && !opaque(getComputedStyle(e).backgroundColor))
        e = e.parentElement;
    return numbers(getComputedStyle(e || document.documentElement).backgroundColor);
};
const holdsText = e => [...e.childNodes].some(
    node => node.nodeType === Node.TEXT_NODE && node.data.trim());
return [...document.querySelectorAll('body *')]
    .filter(e => e.checkVisibility() && holdsText(e) && !e.matches('title, desc'))
    .map(e => {
        const style = getComputedStyle(e);
        const colour = e instanceof SVGElement ? style.fill : style.color;
        return [e.textContent, numbers(colour).slice(0, 3), behind(e).slice(0, 3)];
    });
"""


def luminance(colour):
    """Relative, as the accessibility guidelines define it."""
    parts = [
        part / 12.92 if part <= 0.03928 else ((part + 0.055) / 1.055) ** 2.4
        for part in (channel / 255 for channel in colour)
    ]
    return 0.2126 * parts[0] + 0.7152 * parts[1] + 0.0722 * parts[2]


def contrast(one, other):
    low, high = sorted((luminance(one), luminance(other)))
    return (high + 0.05) / (low + 0.05)


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_every_text_can_be_read(shown, scheme):
    colours = shown.show(scheme=scheme).run(COLOURS)
    assert len(colours) > 15
    for text, ink, paper in colours:
        assert contrast(ink, paper) >= CONTRAST, (text, ink, paper)


def test_light_and_dark_are_two_schemes(shown):
    papers = [
        shown.show(scheme=scheme).run(
            "return ['body', 'section', '.verdict'].map(name => "
            "getComputedStyle(document.querySelector(name)).backgroundColor)"
        )
        for scheme in ("light", "dark")
    ]
    numbers = [[list(map(int, re.findall(r"\d+", c)))[:3] for c in p] for p in papers]
    for light, dark in zip(*numbers):
        assert luminance(light) > 0.7 and luminance(dark) < 0.1


def test_it_needs_nothing_but_itself(shown):
    assert shown.run("return performance.getEntriesByType('resource')") == []
    assert shown.run("return document.scripts.length") == 0
    assert shown.log() == []


def test_charts_are_told_to_a_screen_reader(arrived):
    images = dict(arrived.accessible_images())
    assert set(images) == {"Rate over time", "Gaps between arrivals", "Sizes"}
    assert "Mbps over" in images["Rate over time"]


def test_it_prints_on_white_paper_whatever_the_scheme(shown):
    shown.show(scheme="dark", media="print")
    style = "return getComputedStyle(document.querySelector(arguments[0]))"
    for name in ("body", "section", ".verdict"):
        assert shown.run(f"{style}.backgroundColor", name) == "rgb(255, 255, 255)"
    for text, ink, paper in shown.run(COLOURS):
        assert contrast(ink, paper) >= CONTRAST, (text, ink, paper)
    if shown.result.received != (0, 0):
        assert shown.run(f"{style}.breakInside", "figure") == "avoid"


def test_it_prints_to_a_few_pages(shown):
    pdf = shown.pdf()
    assert pdf.startswith(b"%PDF-")
    sheets = len(re.findall(rb"/Type\s*/Page\b", pdf))
    assert 1 <= sheets <= 4
