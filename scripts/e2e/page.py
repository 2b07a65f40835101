#!/usr/bin/env python3
"""Uses the agent's page as a person would, in a headless browser.

page.py AGENT_URL SOCKET DATABASE_PORT [IMAGES]: a service of the demo reports to the agent, which forwards to
that port of loopback. With a folder, pictures for the documents go there.
"""
import http.server
import json
import pathlib
import socket
import sys
import threading
import time

import send_points
from browser import Browser, Failure

HOSTILE = [
    "<img src=x onerror=document.title='pwned'>",
    "\"'><script>document.title='pwned'</script>",
    "x" * 200,
    "\u202egnp.exe\u200b",
    "constructor",
]


def expect(what, condition, shown=""):
    if not condition:
        raise Failure(f"{what} {shown}")
    print(f"  {what}")


class Database:
    """Takes all that is posted to it, while it is there."""

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.0"

        def do_POST(self):
            self.rfile.read(int(self.headers["Content-Length"]))
            self.send_response(400 if self.server.refuses else 204)
            self.end_headers()
            if self.server.refuses:
                self.wfile.write(HOSTILE[0].encode())

        def log_message(self, *_):
            pass

    def __init__(self, port):
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", port), self.Handler)
        self.server.refuses = False
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def close(self):
        self.server.shutdown()
        self.server.server_close()


def send_hostile(path, stop):
    """A service whose names and values are markup, long, turned around, or names of the language."""
    value = 0
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as agent:
        agent.connect(path)
        while not stop.wait(1):
            value += 1
            for name in HOSTILE:
                agent.send(send_points.packet(name, int(time.time()), value, {"key" + name[:8]: name}))


def complaints(browser):
    """What the page did that it must not: errors, refused or foreign requests, broken rules of its policy."""
    found = []
    for event in browser.events:
        method, about = event["method"], event["params"]
        if method == "Runtime.exceptionThrown":
            found.append(about["exceptionDetails"])
        elif method == "Runtime.consoleAPICalled" and about["type"] in ("error", "warning", "assert"):
            found.append(about["args"])
        elif method == "Log.entryAdded" and about["entry"]["level"] in ("error", "warning"):
            found.append(about["entry"])
        elif method == "Network.requestWillBeSent":
            url = about["request"]["url"]
            if not url.startswith((browser.home, "data:")):
                found.append(url)
    return found


def text(browser, node):
    return browser.js(f"document.querySelector({json.dumps(node)})?.innerText ?? ''")


def find(browser, words, picked=True):
    """Types into the search, by keyboard alone, and opens the first metric that is found."""
    browser.js("document.activeElement.blur()")
    browser.press("/")
    browser.js("document.activeElement.value = ''")
    browser.type(words)
    browser.wait(f"finding {words}",
                 f"document.querySelector('#results .name')?.textContent.includes({json.dumps(words.split()[0])})")
    if picked:
        browser.press("Enter")


def newest(browser):
    """The newest value in the legend, or its time; it changes as points arrive."""
    return browser.js("document.querySelector('.legend tbody tr')?.innerText ?? ''")


def use(browser):
    browser.window(1280, 900)
    browser.go(browser.home)
    browser.wait("an answer of the agent", "document.getElementById('contact').textContent === 'live'")
    browser.wait("the connected service", "document.getElementById('services').innerText.includes('shop')")
    browser.wait("the destination", "/\\bup\\b/.test(document.getElementById('destinations').innerText)")

    find(browser, "web requests bytes")
    browser.wait("the plot", "document.querySelectorAll('#plot canvas').length > 0")
    browser.wait("its six series", "document.querySelectorAll('.legend tbody tr').length === 6")
    before = newest(browser)
    browser.wait("a plot that moves", f"document.querySelector('.legend tbody tr').innerText !== {json.dumps(before)}")
    expect("a metric is found, plotted, and moves", True)

    find(browser, "upstream")
    browser.wait("a band", "document.querySelector('.legend').innerText.includes('pct50 to pct99')")
    browser.press("Tab")
    find(browser, "sizes histogram")
    browser.wait("a heat map", "document.querySelectorAll('.heatmap canvas').length === 1")
    browser.wait("its samples", "/^[1-9]/.test(document.querySelector('.legend tbody tr').cells[1].innerText)")
    expect("a band of percentiles and a heat map are drawn", True)

    browser.press("/")
    browser.press("ArrowDown")
    expect("the arrow keys go to the results", browser.js("document.activeElement.closest('#results') !== null"))
    expect("the address of the page holds the plot", "plot=" in browser.js("location.search"))


def try_hostile(browser, database):
    database.server.refuses = True
    browser.wait("a loss in red", "document.querySelector('#dropped tr.is-bad')?.innerText.includes('rejected')")
    browser.wait("the words of a refusal", "document.getElementById('destinations').innerText.includes('onerror')")
    database.server.refuses = False
    link = browser.js("document.querySelector('#dropped a').href")
    expect("a loss is shown, with a document that explains it",
           browser.js(f"fetch({json.dumps(link)}).then((answer) => answer.text())").startswith("# Forwarding"))
    for name in HOSTILE:
        find(browser, name[:200].strip("\u202e\u200b"), picked=False)
    find(browser, "onerror")
    browser.wait("the plot of a hostile name",
                 "document.querySelector('.legend tbody .what')?.textContent.includes('onerror')")
    nodes = browser.js("document.querySelectorAll('main img, main script, main [onerror]').length")
    expect("hostile names and values do not become markup",
           nodes == 0 and "pwned" not in browser.js("document.title"))


def try_outage(browser, port):
    browser.wait("an alarm", "/away/.test(document.getElementById('alarms').innerText)")
    expect("an outage is shown", "away" in text(browser, "#destinations"))
    database = Database(port)
    browser.wait("its end", "!/away/.test(document.getElementById('alarms').innerText)")
    expect("and its end", True)
    database.close()


def try_windows(browser, images):
    for what, width, height, dark in (("light", 1280, 900, False), ("dark", 1280, 900, True), ("phone", 390, 844, False)):
        browser.window(width, height, 1, dark, what == "phone")
        browser.wait(f"a page that fits the window, {what}", "document.documentElement.scrollWidth <= innerWidth")
        if images:
            time.sleep(3)  # until it is drawn again
            browser.screenshot(images / f"page-{what}.png")
    browser.window(1280, 900)
    expect("it fits a wide window and a narrow one", True)


def main():
    home, path, port, *images = sys.argv[1:]
    database = Database(int(port))
    stop = threading.Event()
    hostile = threading.Thread(target=send_hostile, args=(path, stop))
    browser = Browser()
    browser.home = home
    try:
        use(browser)
        if images:
            find(browser, "web requests rate")
            time.sleep(60)
        try_windows(browser, pathlib.Path(images[0]) if images else None)
        hostile.start()
        try_hostile(browser, database)
        database.close()
        try_outage(browser, int(port))
        found = complaints(browser)
        expect("no error, no foreign request, no broken policy", not found, found[:3])
    finally:
        browser.close()
        stop.set()
        if hostile.ident:
            hostile.join()


if __name__ == "__main__":
    main()
