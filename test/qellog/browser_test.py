"""The page in a real browser: browser_test.py QELLOG [PICTURE].

Drives a headless Chromium through its own driver. The page is opened from a file, so all that it needs is in it. Status
77, and a loud word, where there is no browser.
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

OPTIONS = ["--headless", "--no-sandbox", "--disable-gpu", "--no-first-run", "--disable-background-networking",
           "--disable-component-update", "--disable-sync", "--hide-scrollbars", "--window-size=1280,1400"]
HOSTILE = "</script><script>document.title='owned'</script><img src=x onerror=\"document.title='owned'\"> \u202egnp.exe \x1b[2J"


class Driver:
    """As much of the WebDriver protocol as is needed."""

    def __init__(self, folder):
        self.process = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True)
        port = ""
        while not port:
            line = self.process.stdout.readline()
            assert line, "the driver has ended"
            if "successfully on port " in line:
                port = line.split("on port ")[1].strip(" .\n")
        self.root = f"http://127.0.0.1:{port}/session"
        wanted = {"browserName": "chrome", "goog:loggingPrefs": {"browser": "ALL"},
                  "goog:chromeOptions": {"args": OPTIONS + [f"--user-data-dir={folder}"]}}
        self.root += "/" + self.call("", {"capabilities": {"alwaysMatch": wanted}})["sessionId"]

    def call(self, path, body=None, method=None):
        request = urllib.request.Request(self.root + path, None if body is None else json.dumps(body).encode(),
                                         {"Content-Type": "application/json"}, method=method)
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            return json.load(opener.open(request, timeout=60))["value"]
        except urllib.error.HTTPError as error:
            raise AssertionError(error.read().decode()) from error

    def run(self, script, *arguments):
        return self.call("/execute/sync", {"script": script, "args": list(arguments)})

    def find(self, selector):
        return next(iter(self.call("/element", {"using": "css selector", "value": selector}).values()))

    def click(self, selector):
        self.call(f"/element/{self.find(selector)}/click", {})

    def type(self, selector, text):
        self.call(f"/element/{self.find(selector)}/value", {"text": text})

    def drag(self, selector, begin, end):
        """Drags inside an element, begin and end as parts of its width."""
        self.run("document.querySelector(arguments[0]).scrollIntoView()", selector)
        box = self.run("const b = document.querySelector(arguments[0]).getBoundingClientRect(); "
                       "return [b.x, b.y, b.width, b.height]", selector)
        y = round(box[1] + box[3] * 0.4)
        move = lambda part: {"type": "pointerMove", "duration": 100, "x": round(box[0] + box[2] * part), "y": y}
        self.call("/actions", {"actions": [{"type": "pointer", "id": "mouse", "actions": [
            move(begin), {"type": "pointerDown", "button": 0}, move((begin + end) / 2), move(end),
            {"type": "pointerUp", "button": 0}]}]})

    def picture(self, path):
        import base64
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.call("/screenshot")))

    def end(self):
        try:
            self.call("", method="DELETE")
        finally:
            self.process.terminate()
            self.process.wait()


def line(second, message, thread=2):
    return f"2024/03/05, 14:{second // 60:02}:{second % 60:02}.000, ML=37, /opt/viewer, 11, {thread}, s.cpp(1):{message}\r\n"


def make_logs(folder):
    with open(f"{folder}/VemoFileOperation_7EFEA029.txt", "w", encoding="utf-8", newline="") as file:
        file.write("".join(line(second, f"retryCount=0, lastErr=32, Retry, CreateFileX(file {second})")
                           for second in range(0, 1000)))
    with open(f"{folder}/VemoLogOutMisc_7EFEA029.txt", "w", encoding="utf-8", newline="") as file:
        file.write(line(100, HOSTILE) + line(900, "two\r\nrows"))
    separators = (">" * 87 + "\r\n") * 2
    with open(f"{folder}/VemoExceptLogOut_4DE2C31F.txt", "wb") as file:
        file.write((f"\r\n{separators}>>>>>>>>>> 2024/03/05 14:08:20.000\r\n>>>>>>>>>> <b>t</b>(m)\r\n>>>>>>>>>> /opt/viewer\r\n"
                    f">>>>>>>>>> TC=1, ProcessId()=11, ThreadId()=2\r\n{separators}"
                    "======================= Exception Information(EXCEPTION_RECORD) =======================\r\n"
                    "ExceptionCode    = 0xc0000005\r\nNumberParameters = 0x00000002\r\n"
                    "ExceptionInformation[0] = 0x00000000\r\nExceptionInformation[1] = 0x00000000\r\n\r\n"
                    "======================= Stack Walk ==============================================\r\n"
                    "0x565c3277 SumPixels() + 0x7\r\n\r\n#####\r\n#####\r\n##### 2024/03/05 14:08:20.001\r\n"
                    "##### t()\r\n##### ProcessId()=11\r\n\r\n===================== Virtual Memory Status =====================\r\n"
                    ).encode() + b"\x8B\xF3\x82\xAB\x97\x65\x97\xCA         =        4096 Bytes (      0 MBytes )\r\n\r\n"
                   b"================ Disk Free Space ================\r\n")


def equal(found, expected, what):
    assert found == expected, f"{what}: {found!r} instead of {expected!r}"


def check(driver, page):
    driver.call("/url", {"url": "file://" + page})
    shown = lambda: driver.run("return document.getElementById('shown').textContent")
    equal(driver.run("return document.querySelector('.tile b').textContent"), "1,002", "lines")
    equal(shown(), "1,003 of 1,003", "records")
    equal(driver.run("return document.querySelectorAll('.report-card').length"), 1, "reports")
    equal(driver.run("return document.querySelector('.cause').textContent"), "read of address 0 in SumPixels", "cause")
    assert driver.run("return document.getElementById('chart').querySelectorAll('canvas').length") > 0, "no chart"

    driver.type("#text", "file 99")
    equal(shown(), "11 of 1,003", "lines with a text")
    driver.type("#text", "\ue009a\ue009\ue017")  # Ctrl-A, Delete
    driver.type("#text", "gnp")
    equal(shown(), "1 of 1,003", "the hostile line")
    text = driver.run("return document.querySelector('.body .row > :last-child').textContent")
    assert "<U+202E>" in text and "\\x1b[2J" in text and "</script><script>" in text, text
    equal(driver.run("return document.title.includes('owned')"), False, "a script of a message ran")
    driver.click("#all")
    equal(shown(), "1,003 of 1,003", "all lines again")

    driver.click("#table .head > :first-child")
    first = driver.run("return document.querySelector('.body .row > :last-child').textContent")
    assert "file 999" in first, f"sorted backwards begins with {first}"

    driver.drag("#chart canvas", 0.25, 0.5)
    time.sleep(0.5)
    zoomed = int(shown().split(" ")[0].replace(",", ""))
    assert 150 < zoomed < 400, f"a quarter of the time shows {zoomed} lines"
    driver.click("#all")
    time.sleep(0.5)
    equal(shown(), "1,003 of 1,003", "zoomed out")

    driver.click(".report-card > summary")
    driver.click(".around")
    time.sleep(0.5)
    equal(shown().split(" of")[0], "12", "lines round the crash")
    assert "空き容量" in driver.run("return document.querySelector('.report-card').textContent"), "labels are not readable"
    problems = [entry for entry in driver.call("/se/log", {"type": "browser"}) if entry["level"] in ("SEVERE", "WARNING")]
    equal(problems, [], "the console")


def main():
    if not shutil.which("chromedriver") or not (shutil.which("chromium") or shutil.which("google-chrome")):
        print("browser: *** there is no Chromium (script/bootstrap browser): the page was NOT tested ***", file=sys.stderr)
        return 77
    with tempfile.TemporaryDirectory() as scratch:
        logs, page = scratch + "/log", scratch + "/page.html"
        os.mkdir(logs)
        make_logs(logs)
        subprocess.run([sys.argv[1], "html", page, logs], check=True)
        driver = Driver(scratch + "/profile")
        try:
            check(driver, page)
            if len(sys.argv) > 2:
                driver.picture(sys.argv[2])
        finally:
            driver.end()
    print("browser: good")
    return 0


sys.exit(main())
