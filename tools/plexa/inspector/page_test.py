#!/usr/bin/python3
"""The inspector page in a real browser (headless Chromium through Selenium).

Default: starts `plexa serve --http 127.0.0.1:0` with a tree of every attribute type and checks
that the page shows every value as `plexa dump` does, that a change made with `plexa set` shows
within a second, that a value typed on the page reaches a `plexa watch`, that a wrong value shows
the error `plexa set` gives, that removals made on the page disappear and reach the watch,
that `plexa inspect`'s page shows the mirrored tree and sends its edits to the peer, that the plot draws points, and that garbage
sent to the page's socket gets an error without harm. Saves a screenshot.

--load PROGRAM: runs the load program (a tree of --attributes values, all changing --rate times a
second, served with the page) and prints the page's batch-apply time, frame rate and the
program's memory over --seconds.

Exits 77 (skipped) only when Chromium cannot start.
"""
import argparse
import json
import os
import queue
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time

SKIPPED = 77

# A value other than the default for every type, in the JSON form plexa set and dump use.
SAMPLES = {
    'bool': True, 'color': [1, 0.3, 0.25, 0.7], 'float': 0.9, 'double': -2.125, 'int': -7,
    'uint': 4000000000, 'long': '-1152921504606846976', 'ulong': '18446744073709551615',
    'recti': [-1, 2, 3, 4], 'rectf': [0.5, 1, 2, 4], 'rectd': [0.125, 1, 2, 3], 'vec2i': [1, -2],
    'vec2f': [0.5, -1], 'vec3i': [1, 2, 3], 'vec3f': [0.1, 1.5, -2], 'vec4i': [1, 2, 3, -4],
    'vec4f': [1, 2, 3, 0.5], 'mat2': [[1, 2], [3, 4]], 'mat3': [[1, 0, 0], [0, 2, 0], [0, 0, 3]],
    'mat4': [[1, 2, 3, 4], [5, 6, 7, 8], [9, 10, 11, 12], [13, 14, 15, 16]], 'timestamp': 12.5,
    'string': 'hello', 'stringlist': ['a', 'bc'], 'float[]': [0.7, 1], 'vec2f[]': [[1, 2], [3, 4]],
    'int[]': [-1, 2], 'uint[]': [1, 4294967295], 'string[]': ['x', ''], 'grid': [[0, 1, 255], [3, 4, 5]],
    'spline': [[0, 0], [1, 0.5]], 'enum': 3, 'colorpma': [0.5, 0.25, 0, 0.5], 'vec2f-separate': [1.5, 2],
    'sizef': [640, 480.5], 'asset': '/textures/wall.png', 'sizei': [640, 480],
}


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


def wait_for(what, predicate, seconds):
    """Polls `predicate` until it returns something true; its value, or Failure after `seconds`."""
    end = time.monotonic() + seconds
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > end:
            raise Failure(f'{what}: not within {seconds} s')
        time.sleep(0.01)


class Program:
    """A child process whose output lines are read as they come."""

    def __init__(self, arguments, env):
        self.process = subprocess.Popen(arguments, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True)
        self.lines = queue.Queue()
        self.errors = []
        threading.Thread(target=self._read, args=(self.process.stdout, self.lines.put), daemon=True).start()
        threading.Thread(target=self._read, args=(self.process.stderr, self.errors.append), daemon=True).start()

    @staticmethod
    def _read(stream, put):
        for line in stream:
            put(line.rstrip('\n'))

    def wait_line(self, pattern, seconds=20):
        """The first capture of the first line matching `pattern`."""
        end = time.monotonic() + seconds
        expression = re.compile(pattern)
        while True:
            try:
                line = self.lines.get(timeout=max(0.01, end - time.monotonic()))
            except queue.Empty:
                raise Failure(f'no line matching {pattern!r} within {seconds} s; errors: {self.errors}')
            match = expression.search(line)
            if match:
                return match.group(1) if expression.groups else line

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(2)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


def start_browser():
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError as error:
        print(f'SKIP: python3-selenium is not installed ({error}); ./run setup installs it', flush=True)
        sys.exit(SKIPPED)
    options = webdriver.ChromeOptions()
    for argument in ('--headless=new', '--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage',
                     '--window-size=1400,900', '--no-first-run', '--disable-extensions'):
        options.add_argument(argument)
    chromium = shutil.which('chromium')
    if chromium:
        options.binary_location = chromium
    driver_path = shutil.which('chromedriver') or '/usr/bin/chromedriver'
    try:
        return webdriver.Chrome(service=Service(driver_path), options=options)
    except Exception as error:  # any reason Chromium does not come up
        print(f'SKIP: Chromium cannot start: {str(error).strip().splitlines()[0]}', flush=True)
        sys.exit(SKIPPED)


def page_rows(driver):
    return driver.execute_script(
        "return [...document.querySelectorAll('#tree .attr')].map(r => "
        "[r.dataset.path, r.querySelector('.type').textContent, r.querySelector('.value').textContent]);")


def row_value(driver, path):
    return driver.execute_script(
        "const r = document.querySelector(`#tree .attr[data-path='${arguments[0]}'] .value`);"
        "return r ? r.textContent : null;", path)


def attributes_of(tree, prefix=''):
    """Path -> value of the attributes of a tree in plexa's JSON form."""
    out = {}
    for name, child in tree.items():
        path = prefix + name
        if isinstance(child, dict) and '$type' in child:
            out[path] = child['value']
        elif isinstance(child, dict):
            out.update(attributes_of(child, path + '/'))
        else:
            out[path] = child
    return out


def run(command, env):
    return subprocess.run(command, env=env, capture_output=True, text=True, timeout=60)


def type_names(plexa, env):
    text = run([plexa, 'set', '--help'], env).stdout
    listed = re.search(r'Types:\s*(.*?)\.\n', text, re.S).group(1)
    return [t.strip() for t in listed.replace('\n', ' ').split(',') if t.strip()]


def functional_test(args, env, folder):
    plexa = args.plexa
    names = type_names(plexa, env)
    missing = [t for t in names if t not in SAMPLES]
    check(not missing, f'no sample value for the types {missing}')
    tree = {'light': {'intensity': {'$type': 'float', 'value': 0.9},
                      'colour': {'$type': 'color', 'value': [1, 0.5, 0, 1]}},
            'count': {'$type': 'int', 'value': 3},
            'types': {t.replace('[]', '_list'): {'$type': t, 'value': SAMPLES[t]} for t in names}}
    tree_file = os.path.join(folder, 'tree.json')
    with open(tree_file, 'w') as f:
        json.dump(tree, f)

    serve = Program([plexa, 'serve', '--tree', tree_file, '--listen', '127.0.0.1:0', '--http', '127.0.0.1:0'], env)
    driver = None
    watch = None
    try:
        peer = serve.wait_line(r'^listening on (\S+)$')
        url = serve.wait_line(r'^inspector page at (http://\S+)$')
        watch = Program([plexa, 'watch', peer, '--json'], env)
        watch.wait_line(r'"path":"light/intensity"')

        started = time.monotonic()
        driver = start_browser()
        print(f'browser started in {time.monotonic() - started:.1f} s', flush=True)
        driver.get(url)

        # Every attribute shows its type and the value plexa dump gives.
        dumped = attributes_of(json.loads(run([plexa, 'dump', peer, '--json'], env).stdout))
        wait_for('the whole tree on the page', lambda: len(page_rows(driver)) == len(dumped), 10)
        shown = {path: (type_, value) for path, type_, value in page_rows(driver)}
        check(set(shown) == set(dumped), f'paths differ: {sorted(set(shown) ^ set(dumped))}')
        for path, value in dumped.items():
            check(json.loads(shown[path][1]) == value, f'{path}: the page shows {shown[path][1]}, dump {value!r}')
        for t in names:
            check(shown['types/' + t.replace('[]', '_list')][0] == t, f'type of {t} not shown as {t}')
        check(shown['light/intensity'][1] == '0.9', f'a float shows as {shown["light/intensity"][1]}, not 0.9')
        print(f'{len(shown)} attributes of {len(names)} types shown as dump gives them', flush=True)

        # A change made with plexa set shows within a second.
        result = run([plexa, 'set', peer, 'light/intensity=0.25'], env)
        check(result.returncode == 0, f'plexa set failed: {result.stderr}')
        set_done = time.monotonic()
        wait_for('plexa set on the page', lambda: row_value(driver, 'light/intensity') == '0.25', 1.0)
        print(f'plexa set shown {1000 * (time.monotonic() - set_done):.0f} ms after it returned', flush=True)

        # The plot: a scalar and a vector's component.
        driver.find_element('css selector', ".plot-toggle[data-series='light/intensity']").click()
        driver.find_element('css selector', ".plot-toggle[data-series='types/vec3f[1]']").click()
        for value in ('0.5', '0.75'):
            run([plexa, 'set', peer, f'light/intensity={value}'], env)
        points = wait_for('points on the plot', lambda: driver.execute_script(
            'return window.inspector.plotPoints() >= 4 ? window.inspector.plotPoints() : 0;'), 5)
        # The canvas is drawn on the next animation frames: poll it rather than read it once.
        def coloured_pixels():
            return driver.execute_script(
                "const c = document.getElementById('plot'); const d = c.getContext('2d')"
                ".getImageData(0, 0, c.width, c.height).data; let n = 0;"
                "for (let i = 0; i < d.length; i += 4) if (d[i] === 0x1f && d[i+1] === 0x6f && d[i+2] === 0xd1) n++;"
                "return n;")
        try:
            coloured = wait_for('the plot drawn', lambda: coloured_pixels() > 20 and coloured_pixels(), 5)
        except Failure:
            coloured = coloured_pixels()
        check(coloured > 20, f'the plot has {coloured} pixels of the first series colour')
        print(f'plot: {points} points, {coloured} pixels of the first series', flush=True)
        shot = args.screenshot
        os.makedirs(os.path.dirname(shot), exist_ok=True)
        driver.execute_script("document.getElementById('tree').scrollTop = 0;")
        driver.save_screenshot(shot)
        print(f'screenshot: {shot}', flush=True)

        # A value typed on the page reaches plexa watch on the other side.
        value = driver.find_element('css selector', ".attr[data-path='light/intensity'] .value")
        value.click()
        field = driver.find_element('css selector', ".attr[data-path='light/intensity'] input.edit")
        field.clear()
        field.send_keys('0.125\n')
        watch.wait_line(r'"path":"light/intensity".*"value":0\.125\b', 5)
        wait_for('the field closing', lambda: not driver.find_elements(
            'css selector', ".attr[data-path='light/intensity'] input.edit"), 5)

        # A wrong value gets the error plexa set prints, next to the field.
        expected = run([plexa, 'set', peer, 'count=abc'], env).stderr.strip()
        check(expected.startswith('plexa set: '), f'plexa set gave {expected!r}')
        expected = expected[len('plexa set: '):]
        driver.find_element('css selector', ".attr[data-path='count'] .value").click()
        field = driver.find_element('css selector', ".attr[data-path='count'] input.edit")
        field.clear()
        field.send_keys('abc\n')
        error = wait_for('the error', lambda: driver.execute_script(
            "return document.querySelector(\".attr[data-path='count'] .error\").textContent;"), 5)
        check(error == expected, f'the page shows {error!r}, plexa set {expected!r}')
        print(f'wrong value: {error}', flush=True)

        # Garbage on the page's socket gets an error; the page goes on.
        reply = driver.execute_async_script(
            "const done = arguments[0]; const s = new WebSocket(`ws://${location.host}/socket`);"
            "s.onopen = () => s.send('\\u0000garbage{');"
            "s.onmessage = m => { const j = JSON.parse(m.data); if (j.op === 'error') { s.close(); done(j.message); } };"
            "setTimeout(() => done('no answer'), 5000);")
        check(reply.startswith('not JSON'), f'garbage got {reply!r}')

        # Removals on the page disappear there and reach plexa watch: one attribute, then a node.
        driver.find_element('css selector', ".attr[data-path='light/colour'] .remove").click()
        watch.wait_line(r'"kind":"removed","path":"light/colour"', 5)
        driver.find_element('css selector', ".node[data-path='types'] > .label .remove").click()
        watch.wait_line(r'"kind":"removed","path":"types/', 5)
        wait_for('the removals', lambda: {p for p, _, _ in page_rows(driver)} == {'light/intensity', 'count'}, 2)
        check(not driver.find_elements('css selector', ".node[data-path='types']"), 'the empty node stays')

        check(serve.process.poll() is None, 'plexa serve ended')

        # plexa inspect: a mirror's page shows the same tree, and its edits reach the peer.
        inspect = Program([plexa, 'inspect', peer, '--http', '127.0.0.1:0'], env)
        try:
            driver.get(inspect.wait_line(r'^inspector page at (http://\S+)$'))
            wait_for('the mirror on its page', lambda: sorted(page_rows(driver)) == sorted(
                [['count', 'int', '3'], ['light/intensity', 'float', row_value(driver, 'light/intensity')]]), 10)
            wait_for('the state', lambda: driver.find_element('id', 'state').text == 'connected', 5)
            driver.find_element('css selector', ".attr[data-path='count'] .value").click()
            field = driver.find_element('css selector', ".attr[data-path='count'] input.edit")
            field.clear()
            field.send_keys('42\n')
            watch.wait_line(r'"path":"count".*"value":42\b', 5)
            check(not driver.find_element('css selector', ".attr[data-path='count'] .remove").is_displayed(),
                  'a mirror offers to remove the peer\'s attributes')
        finally:
            inspect.stop()
        check(inspect.process.returncode == 0, f'plexa inspect ended with {inspect.process.returncode}')
    finally:
        if driver:
            driver.quit()
        if watch:
            watch.stop()
        serve.stop()
    print('PASS', flush=True)


def load_test(args, env):
    program = Program([args.load, '--attributes', str(args.attributes), '--rate', str(args.rate)], env)
    driver = None
    try:
        url = program.wait_line(r'^inspector page at (http://\S+)$')
        driver = start_browser()
        driver.get(url)
        wait_for('the tree on the page', lambda: driver.execute_script(
            'return window.inspector.attributeCount();') >= args.attributes, 60)
        driver.execute_script('window.inspector.resetStats();')
        rss = [int(program.wait_line(r'^rss (\d+) kB$'))]
        end = time.monotonic() + args.seconds
        while time.monotonic() < end:
            rss.append(int(program.wait_line(r'^rss (\d+) kB$')))
        stats = driver.execute_script('return window.inspector.stats();')
        changes = program.wait_line(r'^(\d+ changes/s)$')
        print(f'load: {args.attributes} attributes, {changes} made; page: {stats["batches"] / args.seconds:.1f} '
              f'batches/s, apply median {stats["applyMsMedian"]:.1f} ms, max {stats["applyMsMax"]:.1f} ms, '
              f'{stats["fps"]:.1f} frames/s; tool RSS {rss[0] // 1024} MB at start, {rss[-1] // 1024} MB after '
              f'{args.seconds} s (max {max(rss) // 1024} MB)', flush=True)
    finally:
        if driver:
            driver.quit()
        program.stop()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--plexa', help='the plexa program')
    parser.add_argument('--screenshot', help='where to save the screenshot')
    parser.add_argument('--load', help='the load program: measure instead of test')
    parser.add_argument('--attributes', type=int, default=10000)
    parser.add_argument('--rate', type=int, default=60)
    parser.add_argument('--seconds', type=int, default=10)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as home:
        env = dict(os.environ, HOME=home, XDG_CONFIG_HOME=home + '/config', XDG_DATA_HOME=home + '/data',
                   XDG_CACHE_HOME=home + '/cache')
        env.pop('PLEXA_SHARED_KEY', None)
        try:
            if args.load:
                load_test(args, env)
            else:
                functional_test(args, env, home)
        except Failure as failure:
            print(f'FAIL: {failure}', flush=True)
            return 1
    return 0


if __name__ == '__main__':
    sys.exit(main())
