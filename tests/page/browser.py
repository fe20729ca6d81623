"""What the tests of the page share: a real browser, headless and without a network."""

import json
import pathlib
import re
import sys

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / 'command'))
from harness import PATIENCE, PROJECT, SESSIONS, CommandTest, findings_of  # pylint: disable=wrong-import-position

FAULTS = ['slow:200:2:40', 'drop:300', 'lost:400:3', 'log-lost:500:12']
HOSTILE = '<script>document.title=1</script><img src=x>"&'
CTRL, SHIFT = 2, 8  # As the browser counts them.


class BrowserTest(CommandTest):
    made = {}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        options = webdriver.ChromeOptions()
        for flag in ['headless=new', 'no-sandbox', 'disable-gpu', 'disable-quic', 'no-first-run',
                     'disable-background-networking', 'disable-component-update', 'disable-sync',
                     'window-size=1300,900', f'user-data-dir={cls.directory}/profile']:
            options.add_argument(f'--{flag}')
        options.set_capability('goog:loggingPrefs', {'browser': 'ALL', 'performance': 'ALL'})
        cls.browser = webdriver.Chrome(service=Service('/usr/bin/chromedriver'), options=options)
        cls.addClassCleanup(cls.browser.quit)
        cls.browser.set_script_timeout(PATIENCE)

    def load(self, page):
        self.browser.get('about:blank')
        self.browser.get_log('performance')  # Drops what the browser logs at its start.
        self.browser.get(page.as_uri())
        self.addCleanup(self.expect_quiet, page)

    # No error on the console and no request to any server.
    def expect_quiet(self, page):
        self.assertEqual(self.browser.get_log('browser'), [])
        messages = [json.loads(entry['message'])['message']
                    for entry in self.browser.get_log('performance')]
        asked = {message['params']['request']['url'].split('#')[0] for message in messages
                 if message['method'] == 'Network.requestWillBeSent'}
        self.assertLessEqual(asked, {page.as_uri(), 'data:,'})
        self.assertLess(page.stat().st_size, 2_000_000)

    def all(self, selector):
        return self.browser.find_elements(By.CSS_SELECTOR, selector)

    def texts(self, selector):
        return [element.get_attribute('textContent') for element in self.all(selector)]

    def script(self, text, *arguments):
        return self.browser.execute_script(text, *arguments)

    def faulty_page(self):
        """A capture with faults, and its page; made once."""
        self.page = self.directory / 'capture.html'
        self.capture = self.directory / 'capture.log'
        if not self.made:
            self.simulate('--frames', 600, *(f'--fault={fault}' for fault in FAULTS))
            self.run_command('explain', self.capture, '--to-html', self.page, status=1)
            self.made.update({path: path.read_bytes() for path in (self.capture, self.page)})
        for path, content in self.made.items():
            path.write_bytes(content)

    def hostile_page(self, page):
        """A page of stages whose names are markup."""
        config = self.path('hostile.toml', (
            '[TarvoCameraFrameBoostConfig]\ncameraFrameBoostEnable = true\n'
            'SupportOperationModeList = [0x8001]\n[TarvoCameraFrameBoostConfig.stage]\n'
            f"0 = ['{HOSTILE}', '1']\n1 = ['Encoder', '1']\n"))
        session = 'TcfbtSetSceneInfo true 3840 60\nTcfbtNotifySceneStart 0x8001\nPlayRecording 20\n'
        self.replayed_page(page, session, '--config', config)


class Timeline:
    """The timeline as a person has it: a mouse, keys, and what the browser shows."""

    GUTTER = 150  # Of a wide window: left of it are the names of rows.

    def __init__(self, test):
        self.test = test
        test.until(lambda: test.script('return !!window.timeline'))
        test.script('document.body.style.paddingBottom = "2000px"')  # There is room to scroll.
        # What is read at a time in a track, so many pixels below its top, and where that is.
        test.script('''window.placeOf = (id, time, below) => {
            const {tracks, numbers} = timeline.shown();
            const [x, y] = [timeline.xOf(time), tracks.find((one) => one.id === id).y + below];
            const hit = timeline.at(x, y);
            return {...hit, x, y, number: numbers[hit?.frame] ?? null};
        };''')
        self.bring()

    def bring(self):
        """Scrolls to where all of it is seen."""
        self.test.script('document.querySelector(".controls").scrollIntoView()')

    def box(self, canvas):
        return self.test.script('const box = document.querySelector(arguments[0])'
                                '.getBoundingClientRect(); return [box.x, box.y, box.width]', canvas)

    def mouse(self, kind, canvas, x, y, **more):
        """With x and y in the canvas."""
        left, top, _ = self.box(canvas)
        self.test.browser.execute_cdp_cmd('Input.dispatchMouseEvent', {
            'type': kind, 'x': left + x, 'y': top + y, 'button': 'left', 'clickCount': 1} | more)

    def drag(self, canvas, x, to, y=50, **more):
        self.mouse('mousePressed', canvas, x, y, **more)
        for part in (0.3, 1):
            self.mouse('mouseMoved', canvas, x + (to - x) * part, y, buttons=1, **more)
        self.mouse('mouseReleased', canvas, to, y, **more)

    def click(self, canvas, x, y):
        self.mouse('mousePressed', canvas, x, y)
        self.mouse('mouseReleased', canvas, x, y)

    def wheel(self, canvas, x, amount, modifiers=0, sideways=0):
        self.mouse('mouseWheel', canvas, x, 50, button='none', deltaX=sideways, deltaY=amount,
                   modifiers=modifiers)

    def tip(self, x, y):
        """The lines that are shown at a place; none where there is nothing."""
        self.mouse('mouseMoved', '.frames', x, y, button='none')
        self.test.script('return new Promise(requestAnimationFrame)')
        return self.test.texts('.tip:not([hidden]) > div')

    def at(self):
        """From, to and the frame, if there is one, of the address. It is up to date after a while."""
        shown = self.test.script('return new Promise((done) => setTimeout(() => done(location.hash), '
                                 '300))')
        fields = dict(re.findall(r'(\w+)=(-?[\d.]+)', shown))
        return (*(float(fields.get(name, 'nan')) for name in ('from', 'to')), fields.get('frame'))

    def go(self, start, end, more=''):
        self.test.script('const shown = location.hash = arguments[0]; return new Promise((done) => '
                         'requestAnimationFrame(() => requestAnimationFrame(done)))',
                         f'#scene=1&from={start}&to={end}{more}')
