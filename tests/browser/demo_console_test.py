"""`make demo` end to end in headless Chromium: the gateway starts with an
empty ./iotRunTime/, takes its configuration from lumbra-platform, and the
console the demo prints shows the simulated PLC's values changing in place,
alarms acknowledged, a drawn history chart, and a write from the page that
the PLC keeps and the gateway reports back.

    /usr/bin/python3 tests/browser/demo_console_test.py SOURCE_DIR BUILD_DIR
"""
import os
import re
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import stack  # noqa: E402

stack.skip_without_browser()
from selenium.common.exceptions import StaleElementReferenceException  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402

SOURCE = os.path.abspath(sys.argv.pop(1) if len(sys.argv) > 1 else ".")
BUILD = os.path.abspath(sys.argv.pop(1) if len(sys.argv) > 1 else "build")
SERIAL = "LUMBRA-DEMO-0001"
COUNTER, TEMPERATURE, SETPOINT = 2, 4, 9  # codes of examples/iotRunTime/RealTimeConfiguration.json


class DemoConsole(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory(prefix="lumbra-demo-console-")
        env = dict(os.environ, LUMBRA_DEMO_DIR=os.path.join(self.tmp.name, "demo"), LUMBRA_DEMO_QUIET="1",
                   LUMBRA_DEMO_MQTT_PORT=str(stack.free_port()), LUMBRA_DEMO_PLC_PORT=str(stack.free_port()),
                   LUMBRA_DEMO_HTTP_PORT=str(stack.free_port()),
                   LUMBRA_DEMO_AGENT_URL="tcp://127.0.0.1:%d" % stack.free_port())
        self.demo = stack.Process("demo", ["/bin/bash", os.path.join(SOURCE, "scripts", "demo"), BUILD],
                                  self.tmp.name, env=env)
        self.addCleanup(self.tmp.cleanup)
        self.addCleanup(self.stop_demo)
        said = stack.wait_for("the demo to print the console's address",
                              lambda: re.search(r"console: (http://\S+)", self.demo.output()), 60)
        self.url = said.group(1)
        self.driver = stack.browser()
        self.addCleanup(stack.close_browser, self.driver)

    def stop_demo(self):
        self.demo.stop()
        self.assertIn("demo: stopped", self.demo.output())

    def cell(self, code, column="value"):
        return self.driver.find_element(By.CSS_SELECTOR, '#points .row[data-code="%d"] .%s' % (code, column))

    def test_the_demo_console_shows_the_plant(self):
        d = self.driver
        d.get(self.url)
        # The gateway configures itself from the platform and restarts on the
        # new files before its first upload: allow for that.
        stack.wait_for("the demo gateway online", lambda: d.execute_script(
            "return [...document.querySelectorAll('#gateways tbody tr')].some("
            "r => r.cells[0].textContent === arguments[0] && r.cells[1].textContent === 'online')", SERIAL), 90)
        stack.wait_for("the counter on the page", lambda: self.cell(COUNTER).text != "", 30)
        # Points first heard of through the stream get their names from the platform's configuration.
        stack.wait_for("the names", lambda: self.cell(TEMPERATURE, "name").text == "Temperature (C)", 10)

        counter = self.cell(COUNTER)
        seen = {counter.text}
        try:
            stack.wait_for("the counter to change twice in place", lambda: seen.add(counter.text) or len(seen) >= 3, 30)
        except StaleElementReferenceException:
            self.fail("the values table was built again for a live change")

        # The simulator's alarm bit flips every 10 s; the platform stores and acknowledges each event.
        stack.wait_for("an acknowledged alarm", lambda: d.execute_script(
            "return [...document.querySelectorAll('#alarms tbody tr')].some("
            "r => r.cells[3].textContent === 'alarm' && r.cells[5].textContent === 'yes')"), 60)

        # History group 1 samples the temperature every 5 s; the chart reloads on a range click.
        self.cell(TEMPERATURE, "name").click()
        one_hour = d.find_element(By.CSS_SELECTOR, '#chart-ranges [data-range="3600"]')

        def drawn():
            rows = re.match(r"(\d+) rows", d.find_element(By.ID, "chart-note").text)
            if d.find_elements(By.CSS_SELECTOR, "#chart canvas") and rows and int(rows.group(1)) >= 2:
                return True
            one_hour.click()
            return False
        stack.wait_for("a line of two samples or more on the temperature chart", drawn, 60, every=2)

        # A write from the page reaches the PLC; the gateway reads it back and uploads it.
        d.execute_script("location.hash = arguments[0]", "#/%s/%d" % (SERIAL, SETPOINT))
        stack.wait_for("the set-point's chart panel", lambda: d.find_element(By.ID, "chart-title").text.startswith("9 "))
        d.find_element(By.ID, "write-value").send_keys("1234")
        d.find_element(By.CSS_SELECTOR, "#write-form button").click()
        stack.wait_for("the set-point written and read back", lambda: self.cell(SETPOINT).text == "1234", 30)
        self.assertEqual(stack.page_errors(d), [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
