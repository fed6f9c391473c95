"""The console in headless Chromium against a real lumbra-platform, a real
mosquitto and a publisher playing a gateway: what a plant engineer sees,
checked from the page itself.

    /usr/bin/python3 tests/browser/console_test.py BUILD_DIR
"""
import os
import signal
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import stack  # noqa: E402

stack.skip_without_browser()
from selenium.common.exceptions import StaleElementReferenceException  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402

BUILD = os.path.abspath(sys.argv.pop(1) if len(sys.argv) > 1 else "build")
TOKEN = "console-test-token"
NOW = int(time.time())

# Painted pixels on the chart's canvas. Axes alone paint some, so the test
# hides the series and expects fewer.
PAINTED = """
const c = document.querySelector('#chart canvas');
if (!c || !c.width) return -1;
const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
let n = 0;
for (let i = 3; i < d.length; i += 4) if (d[i]) ++n;
return n;
"""


def value_cell(driver, code):
    return driver.find_element(By.CSS_SELECTOR, '#points .row[data-code="%d"] .value' % code)


def table_texts(driver, selector):
    return driver.execute_script(
        "return [...document.querySelectorAll(arguments[0])].map(r => [...r.children].map(c => c.textContent))",
        selector)


class Console(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory(prefix="lumbra-console-")
        work = cls.tmp.name
        cls.broker = stack.Broker(work)
        # With a token the page has to ask for it before its first write.
        cls.platform = stack.Platform(BUILD, cls.broker, work, ["--token", TOKEN])
        cls.driver = stack.browser()

    @classmethod
    def tearDownClass(cls):
        stack.close_browser(cls.driver)
        cls.platform.process.stop()
        cls.broker.process.stop()
        cls.tmp.cleanup()

    def open(self, serial, code=None):
        hash_ = "#/" + serial + ("" if code is None else "/%d" % code)
        self.driver.get("about:blank")  # else a new hash alone would not load the page afresh
        self.driver.get(self.platform.url + hash_)
        stack.wait_for("the values of " + serial, lambda: self.driver.execute_script(
            "return document.body.dataset.points !== undefined && "
            "document.getElementById('gw-title').textContent === arguments[0]", serial))

    def heard(self, serial):
        stack.wait_for(serial + " in the API", lambda: [g for g in self.platform.get("/api/gateways")
                                                        if g["sn"] == serial])

    def gateway(self, serial, names):
        self.platform.configure(serial, realtime={"data": [{"data_code": c, "data_name": n} for c, n in names.items()]},
                                history={"data": [{"group_id": 1, "sample_data": [{"data_code": 1}, {"data_code": 2}]}]})
        return stack.Gateway(self.broker, serial)

    def test_values_alarms_history_and_a_write(self):
        d = self.driver
        gw = self.gateway("CONSOLE-A", {1: "Temperature", 2: "Counter"})
        gw.values({1: "21.5", 2: "7", 3: "<img src=x onerror=window.pwned=1>"})
        self.heard("CONSOLE-A")
        self.open("CONSOLE-A")

        rows = table_texts(d, "#points .block .row")
        self.assertEqual([r[:3] for r in rows], [["1", "Temperature", "21.5"], ["2", "Counter", "7"],
                                                 ["3", "", "<img src=x onerror=window.pwned=1>"]])
        self.assertIsNone(d.execute_script("return window.pwned"), "an uploaded text ran as markup")
        gateways = table_texts(d, "#gateways tbody tr")
        self.assertIn(["CONSOLE-A", "online"], [g[:2] for g in gateways])

        # Live values land in the cells already on the page: the elements held
        # before the change are the ones that show it.
        temperature, counter = value_cell(d, 1), value_cell(d, 2)
        for n in range(3):
            gw.values({1: "%.1f" % (22 + n), 2: str(8 + n)})
            try:
                stack.wait_for("code 1 to show %.1f in place" % (22 + n),
                               lambda: temperature.text == "%.1f" % (22 + n), 10)
                self.assertEqual(counter.text, str(8 + n))
            except StaleElementReferenceException:
                self.fail("the values table was built again for a live change")
        # A point first uploaded now takes its place by code.
        gw.values({0: "first", 5: "last"})
        stack.wait_for("the new points", lambda: len(d.find_elements(By.CSS_SELECTOR, "#points .block .row")) == 5)
        self.assertEqual([r[0] for r in table_texts(d, "#points .block .row")], ["0", "1", "2", "3", "5"])

        # An alarm shows at once and is shown acknowledged once stored; its
        # recovery closes it.
        gw.alarm(1, 2, "ON", NOW - 60)
        alarm = stack.wait_for("the alarm, acknowledged", lambda: [
            r for r in table_texts(d, "#alarms tbody tr") if r[3] == "alarm" and r[5] == "yes"])
        self.assertEqual(alarm[0][1:5], ["1", "2", "alarm", "ON"])
        self.assertEqual(alarm[0][6], "active")
        gw.alarm(1, 2, "OFF", NOW - 30, recovery=True)
        stack.wait_for("the alarm recovered", lambda: [
            r for r in table_texts(d, "#alarms tbody tr") if r[3] == "alarm" and r[6] not in ("", "active")], 15)
        self.assertEqual(len(table_texts(d, "#alarms tbody tr")), 2)

        # The chart of code 1 draws its history rows (its first field).
        gw.history(1, [(NOW - 100 + 10 * i, ["%d" % (20 + i % 4), "x"]) for i in range(10)])
        stack.wait_for("the history rows", lambda: len(
            self.platform.get("/api/gateways/CONSOLE-A/history?code=1")) == 10)
        d.find_element(By.CSS_SELECTOR, '#points .row[data-code="1"] .name').click()
        stack.wait_for("the chart", lambda: d.find_element(By.ID, "chart-note").text.startswith("10 rows"))
        self.assertEqual(d.find_element(By.ID, "chart-title").text, "1 Temperature")
        drawn = stack.wait_for("pixels on the chart", lambda: max(0, d.execute_script(PAINTED)))
        d.find_element(By.CSS_SELECTOR, "#chart .u-legend .u-series:nth-child(2) th").click()
        stack.wait_for("fewer pixels without the line (axes alone are no chart)",
                       lambda: d.execute_script(PAINTED) < drawn, 5)
        # Code 2 holds texts: no line to draw, and the page says so.
        d.execute_script("location.hash = '#/CONSOLE-A/2'")
        stack.wait_for("the note on texts", lambda: "texts" in d.find_element(By.ID, "chart-note").text)
        self.assertEqual(d.find_elements(By.CSS_SELECTOR, "#chart canvas"), [])

        # A write: refused without the token, which the page then asks for.
        commands = self.broker.subscribe(gw.prefix + "/DevRecv/WriteData", self.tmp.name, "writes")
        try:
            time.sleep(0.5)  # the subscription in place before the command goes
            d.find_element(By.ID, "write-value").send_keys("42")
            d.find_element(By.CSS_SELECTOR, "#write-form button").click()
            stack.wait_for("the token asked for", lambda: d.find_element(By.ID, "write-token").is_displayed())
            d.find_element(By.ID, "write-token").send_keys(TOKEN)
            d.find_element(By.CSS_SELECTOR, "#write-form button").click()
            stack.wait_for("the write accepted", lambda: "sent as command" in d.find_element(By.ID, "write-result").text)
            line = stack.wait_for("the write on the broker", lambda: commands.output().strip(), 10)
            self.assertEqual(line, gw.prefix + '/DevRecv/WriteData [{"data_code":"2","data_value":"42"}]')
        finally:
            commands.stop()
        self.assertEqual(stack.page_errors(d), [])

    def test_pages_left_behind_hold_no_connection(self):
        # The browser keeps a left page in its back-forward cache; had it kept
        # the page's event stream open too, the seventh page would wait for one
        # of the six connections a browser opens to the platform.
        self.gateway("CONSOLE-C", {}).values({1: "1"})
        self.heard("CONSOLE-C")
        for n in range(8):
            start = time.monotonic()
            self.open("CONSOLE-C")
            self.assertLess(time.monotonic() - start, 20, "page %d waited for a connection" % (n + 1))

    def test_the_stream_comes_back_after_the_platform_was_killed(self):
        d = self.driver
        gw = self.gateway("CONSOLE-B", {1: "Level"})
        gw.values({1: "1", 2: "2"})
        self.heard("CONSOLE-B")
        self.open("CONSOLE-B")
        stack.wait_for("the stream", lambda: d.find_element(By.ID, "stream").text == "live")
        d.execute_script("window.sameDocument = true")

        self.platform.process.stop(signal.SIGKILL)
        stack.wait_for("the page to notice", lambda: d.find_element(By.ID, "stream").text == "reconnecting")
        self.platform.start()
        stack.wait_for("the stream back", lambda: d.find_element(By.ID, "stream").text == "live", 30)
        gw.values({1: "after"})
        stack.wait_for("the value sent after the restart", lambda: value_cell(d, 1).text == "after", 15)
        self.assertTrue(d.execute_script("return window.sameDocument === true"), "the page was reloaded")
        self.assertEqual(value_cell(d, 2).text, "2")


if __name__ == "__main__":
    unittest.main(verbosity=2)
