#!/usr/bin/env python3
"""The page in a real browser, headless: page_test.py KP-WEB KP PAGE-FOLDER [--pictures FOLDER]

Runs in a mount namespace of its own, with a store of its own. With --pictures it keeps the pictures
that the documents show.
"""
import json
import os
import pathlib
import subprocess
import sys
import unittest

from web_device import DEADLINE, KP, PAGE, Device, enter_namespace, put, put_all, wait_for

SKIPPED = 77

enter_namespace()
try:
    from selenium import webdriver
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.chrome.service import Service
except ImportError:
    webdriver = None
if not webdriver or not os.path.exists("/usr/bin/chromedriver") or not os.path.exists("/usr/bin/chromium"):
    print("page_test.py: Skipped\nchromium, chromium-driver or python3-selenium is not installed")
    sys.exit(SKIPPED)

PICTURES = pathlib.Path(sys.argv[5]) if len(sys.argv) > 5 else None

DICTIONARY = """
["plant/press/speed"]
unit = "m/s"
description = "Speed of the press"
limits = { low = 1.0, high = 30.0 }

["plant/press/mode"]
names = { 0 = "stopped", 1 = "running" }

["plant/oven/temperature"]
unit = "°C"
limits = { high = 200.0, highhigh = 250.0 }
stale = 2
"""


class Page(unittest.TestCase):
    """Each test opens the page anew; the tags of all tests stay."""

    @classmethod
    def setUpClass(cls):
        put("plant/press/speed", 12.5, "double")
        put("plant/press/mode", 1, "int32")
        put("plant/press/door", "closed", "string")
        put("plant/oven/temperature", 260.5, "double")
        put("other/count", 7, "uint32")
        cls.device = Device(DICTIONARY)
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for word in (
            "--headless=new",
            "--no-sandbox",
            "--disable-dev-shm-usage",
            "--disable-gpu",
            "--force-prefers-reduced-motion",
            "--window-size=1280,720",
        ):
            options.add_argument(word)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        cls.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        cls.browser.set_page_load_timeout(DEADLINE)

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        cls.device.end()

    def setUp(self):
        self.browser.set_window_size(1280, 720)
        self.open("")

    def tearDown(self):
        """No test may leave an error on the console, nor ask anybody else for anything."""
        complaints = [line for line in self.browser.get_log("browser") if line["level"] == "SEVERE"]
        self.assertEqual(complaints, [])
        for line in self.browser.get_log("performance"):
            message = json.loads(line["message"])["message"]
            if message["method"] == "Network.requestWillBeSent":
                address = message["params"]["request"]["url"]
                self.assertTrue(address.startswith((self.device.address, "data:")), address)

    def open(self, fragment):
        self.browser.get("about:blank")
        self.browser.get(self.device.address + fragment)
        wait_for(lambda: self.find("#state").text == "live")

    def find(self, what):
        return self.browser.find_element(By.CSS_SELECTOR, what)

    def all(self, what):
        return self.browser.find_elements(By.CSS_SELECTOR, what)

    def row(self, topic):
        """The cells of a row in view, or nothing."""
        for line in self.all("#rows tr.row"):
            cells = [cell.text for cell in line.find_elements(By.TAG_NAME, "td")]
            if cells and cells[0] == topic:
                return cells
        return None

    def picture(self, name):
        if PICTURES:
            self.browser.save_screenshot(str(PICTURES / (name + ".png")))

    def type_filter(self, text):
        self.browser.switch_to.active_element.send_keys("/")
        self.browser.switch_to.active_element.send_keys(Keys.CONTROL, "a")
        self.browser.switch_to.active_element.send_keys(text)

    def test_the_table_shows_values_and_what_the_dictionary_knows(self):
        put("plant/press/speed", 12.5, "double")
        put("plant/press/door", "closed", "string")
        wait_for(lambda: self.row("plant/press/speed")[1] == "12.5 m/s")
        self.assertEqual(self.row("plant/press/mode")[1], "running (1)")
        wait_for(lambda: self.row("plant/press/door")[1] == "closed")
        wait_for(lambda: self.row("plant/oven/temperature")[2] in ("◌ stale", "▲▲ highhigh"))
        self.assertEqual(len(self.all("#rows tr.row")), 5)

    def test_a_change_shows_at_once(self):
        wait_for(lambda: self.row("other/count"))
        watch = (
            "const done = arguments[0]; const at = performance.now();"
            "const wait = () => [...document.querySelectorAll('#rows tr.row')].some((line) =>"
            " line.children[1].textContent === '%s') ? done(performance.now() - at)"
            " : requestAnimationFrame(wait); wait();"
        )
        self.browser.set_script_timeout(DEADLINE)
        delays = []
        for value in range(100, 105):
            with subprocess.Popen([KP, "set", "other/count", str(value)], stdout=subprocess.DEVNULL):
                delays.append(self.browser.execute_async_script(watch % value))
        # Most of it is the start of kp. A page that polled would need seconds.
        self.assertLess(min(delays), 300, delays)

    def test_a_filter_takes_text_or_pattern_and_is_in_the_address(self):
        self.type_filter("press")
        wait_for(lambda: len(self.all("#rows tr.row")) == 3)
        self.type_filter("plant/+/temperature")
        wait_for(lambda: len(self.all("#rows tr.row")) == 1)
        self.assertIn("q=plant", self.browser.current_url)
        self.open("#view=tags&q=other/%23")
        wait_for(lambda: len(self.all("#rows tr.row")) == 1)
        self.assertEqual(self.find("#filter").get_attribute("value"), "other/#")
        self.type_filter("nothing like it")
        wait_for(lambda: self.find("#empty").is_displayed())

    def test_the_tree_leads_to_a_branch(self):
        wait_for(lambda: self.all("#tree summary a"))
        self.browser.execute_script("document.querySelector('#tree a[data-filter=\"plant/#\"]').click()")
        wait_for(lambda: len(self.all("#rows tr.row")) == 4)

    def test_a_row_shows_its_facts_and_draws_a_trend(self):
        self.open("#view=tags&topic=plant/press/speed&trend=plant/press/speed&trend=plant/press/door")
        wait_for(lambda: "Speed of the press" in self.find("#details").text)
        self.assertIn("low 1, high 30", self.find("#details").text)
        wait_for(lambda: "kp-web (" in self.find("#details").text)
        self.assertIn("reading only", self.find("#details").text)
        for value in (14.5, 18.5, 11.5, 16.5):
            put("plant/press/speed", value, "double")
            wait_for(lambda text=f"{value} m/s": text in self.find("#details").text)
        put("plant/press/door", "open", "string")
        drawn = (
            "return [...document.querySelectorAll('#plot canvas')].some((canvas) => canvas.getContext('2d')"
            ".getImageData(0, 0, canvas.width, canvas.height).data.some((byte) => byte > 0))"
        )
        wait_for(lambda: self.browser.execute_script(drawn))
        wait_for(lambda: self.find("#bands").size["height"] >= 26)
        self.assertEqual(len(self.all("#legend li")), 2)
        axis = (
            "return [...document.querySelectorAll('.dygraph-axis-label-y')].map((l) => l.textContent).join()"
        )
        wait_for(lambda: "18" in self.browser.execute_script(axis))
        self.find("#pause").click()
        self.assertEqual(self.find("#pause").get_attribute("aria-pressed"), "true")
        self.picture("web-tags")

    def test_the_doctor_shows_a_planted_fault(self):
        planted = pathlib.Path("/dev/shm/zu-kp/plant/planted")
        planted.write_text("no segment", encoding="utf-8")
        try:
            self.open("#view=tags")
            self.find("#go-doctor").click()
            wait_for(lambda: "plant/planted" in self.find("#findings").text)
            self.picture("web-doctor")
        finally:
            planted.unlink()

    def test_the_peers_are_shown(self):
        with subprocess.Popen([KP, "watch", "--mesh", "#"], stdout=subprocess.PIPE) as peer:
            peer.stdout.readline()
            self.find("#go-peers").click()
            wait_for(lambda: "live" in self.find("#peers").text)
            peer.terminate()

    def test_hostile_names_and_values_stay_text(self):
        hostile = [
            "<img src=x onerror=alert(1)>",
            "</script><script>alert(2)<",
            "\"'&amp;",
            "a\u202eb\u200b\x1b[31m",
        ]
        for name in hostile:
            put("hostile/" + name.replace("/", "|"), name, "string")
        try:
            self.open("#view=tags&q=hostile/%23&topic=" + "hostile/%3Cimg%20src=x%20onerror=alert(1)%3E")
            wait_for(lambda: len([line for line in self.all("#rows tr.row") if line.text.strip()]) == 4)
            wait_for(lambda: self.row("hostile/" + hostile[0])[1] == hostile[0])
            self.assertEqual(self.all("#rows img, #rows script, #details img"), [])
            self.assertIn(hostile[0], self.find("#details").text)
            self.assertTrue(self.row("hostile/a\\u202eb\\u200b\\u001b[31m"))
        finally:
            for name in hostile:
                subprocess.run(
                    [KP, "rm", "--force", "hostile/" + name.replace("/", "|")],
                    check=False,
                    capture_output=True,
                )

    def test_a_phone_has_the_table_and_the_facts(self):
        self.browser.set_window_size(390, 780)
        self.open("#view=tags&topic=plant/press/speed")
        wait_for(lambda: self.row("plant/press/speed"))
        wide = self.browser.execute_script("return document.documentElement.scrollWidth - innerWidth")
        self.assertLessEqual(wide, 0)
        self.assertTrue(self.find("#details").is_displayed())
        self.assertFalse(self.find("#tree").is_displayed())
        self.picture("web-phone")

    def test_the_keyboard_alone_suffices(self):
        wait_for(lambda: self.row("plant/press/speed"))
        self.type_filter("plant/press/#")
        wait_for(lambda: len(self.all("#rows tr.row")) == 3)
        self.browser.switch_to.active_element.send_keys(Keys.ENTER)
        self.browser.switch_to.active_element.send_keys(Keys.ARROW_DOWN)
        wait_for(lambda: self.find("#details-topic").text == "plant/press/door")
        self.browser.switch_to.active_element.send_keys(Keys.ARROW_DOWN)
        wait_for(lambda: self.find("#details-topic").text == "plant/press/mode")
        self.browser.switch_to.active_element.send_keys(Keys.ENTER)
        self.browser.switch_to.active_element.send_keys(Keys.ENTER)
        wait_for(lambda: len(self.all("#legend li")) == 1)
        self.browser.switch_to.active_element.send_keys(Keys.ESCAPE)
        wait_for(lambda: not self.find("#details").is_displayed())

    def test_many_topics_have_only_those_in_view_in_the_page(self):
        put_all({"topic": f"many/t{number:04}", "type": "int32", "value": number} for number in range(1500))
        try:
            self.open("#view=tags&q=many/%23")
            wait_for(lambda: self.row("many/t0000")[1] == "0")
            self.assertLess(len(self.all("#rows tr.row")), 80)
            self.find("#table").send_keys(Keys.END)
            wait_for(lambda: self.row("many/t1499")[1] == "1499")
            self.assertLess(len(self.all("#rows tr.row")), 80)
        finally:
            subprocess.run([KP, "rm", "--force", "many/#"], check=False, capture_output=True)

    def test_it_is_small_and_paints_at_once(self):
        size = sum(file.stat().st_size for file in pathlib.Path(PAGE).iterdir())
        drawing = pathlib.Path("/usr/share/javascript/dygraphs")
        size += sum((drawing / name).stat().st_size for name in ("dygraph.min.js", "dygraph.min.css"))
        self.assertLess(size, 300 * 1024)
        paint = wait_for(
            lambda: self.browser.execute_script(
                "return performance.getEntriesByName('first-contentful-paint')[0].startTime"
            )
        )
        self.assertLess(paint, 1000)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]], verbosity=2)
