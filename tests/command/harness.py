"""What the tests of the command share: they run it as a process, as users do, and look at what it
writes. Each is called with the command and its arguments first."""

import csv
import gzip
import json
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

from trace_rules import read_trace

COMMAND = pathlib.Path(sys.argv.pop(1)).resolve()
PROJECT = pathlib.Path(__file__).resolve().parents[2]
SESSIONS = PROJECT / 'examples/sessions'
PATIENCE = 300  # Seconds for what takes a moment, as something else may have the CPU.


class CommandTest(unittest.TestCase):
    longMessage = True
    maxDiff = 4000

    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.directory = pathlib.Path(directory.name)

    def run_command(self, *arguments, status=0, **options):
        """What the command writes; it has to end with the status, or one of several."""
        options = {'stdout': subprocess.PIPE, 'stderr': subprocess.PIPE, 'timeout': PATIENCE,
                   'cwd': self.directory} | options
        done = subprocess.run([COMMAND, *map(str, arguments)], check=False, **options)
        self.assertIn(done.returncode, status if isinstance(status, tuple) else (status,),
                      f'{arguments}\n{(done.stdout or b"")[:2000]!r}\n{done.stderr!r}')
        if '--to-trace' in arguments and done.returncode in (0, 1):
            trace = options['cwd'] / arguments[arguments.index('--to-trace') + 1]
            with gzip.open(trace) if trace.suffix == '.gz' else trace.open('rb') as file:
                self.tracks, self.arrows = read_trace(file.read())
        return (done.stdout or b'').decode(errors='surrogateescape')

    def errors(self, *arguments, status=2, **options):
        """What the command says on standard error as it fails."""
        options = {'stdout': subprocess.PIPE} | options
        done = subprocess.run([COMMAND, *map(str, arguments)], check=False, cwd=self.directory,
                              stderr=subprocess.PIPE, timeout=PATIENCE, **options)
        self.assertEqual(done.returncode, status, (arguments, done.stderr))
        return done.stderr.decode()

    def path(self, name, content=None):
        """A file of the test's own."""
        path = self.directory / name
        if isinstance(content, bytes):
            path.write_bytes(content)
        elif content is not None:
            path.write_text(content, encoding='utf-8', errors='surrogateescape')
        return path

    def until(self, condition):
        end = time.monotonic() + PATIENCE
        while not condition():
            self.assertLess(time.monotonic(), end, 'it did not come about')
            time.sleep(0.02)

    def explain(self, *arguments, status=(0, 1), **options):
        """The account that explain writes as JSON."""
        return json.loads(self.run_command('explain', '--json', *arguments, status=status,
                                           **options))

    def rows(self, *captures):
        """A row a frame, as CSV has them."""
        self.run_command('explain', *captures, '--to-csv', 'frames.csv', status=(0, 1))
        return self.read_rows('frames.csv')

    def read_rows(self, name):
        """The rows of a table, which is removed: no later run is to be taken for its writer."""
        path = self.path(name)
        with path.open(encoding='utf-8') as file:
            rows = list(csv.DictReader(file))
        path.unlink()
        return rows

    def one_after_the_other(self, captures):
        """The captures, which all begin at noon, an hour apart."""
        captures = list(captures)
        for hour, capture in enumerate(captures, 12):
            capture.write_bytes(capture.read_bytes().replace(b' 12:', b' %d:' % hour))
        return captures

    def replay(self, session, *arguments, log='capture.log'):
        """The log of a session, whose transcript is kept."""
        path = session
        if not isinstance(session, pathlib.Path):
            path = self.path('played.session', session)
        log = self.directory / log
        self.transcript = self.run_command('replay', path, '--log', log, *arguments)
        return log

    def replayed_page(self, page, session, *arguments):
        """A page of what the library logged of a session."""
        log = self.replay(session, *arguments, log='replayed.log')
        self.run_command('explain', log, '--to-html', page, status=(0, 1))

    def simulate(self, *arguments, log='capture.log'):
        log = self.directory / log
        self.run_command('simulate', *arguments, '-o', log)
        return log


def findings_of(account):
    """All findings, those about no scene first."""
    return account['findings'] + [one for scene in account['scenes'] for one in scene['findings']]


def ranges(frames):
    """Numbers as explain's JSON has them."""
    text = []
    for first, last in frames:
        text.append(str(first) if first == last else f'{first}-{last}')
    return ','.join(text)


def in_short(finding):
    """Severity, check, stage and frames of a finding, and how many it stands for."""
    words = [finding['severity'], finding['check']]
    if finding['stage'] is not None:
        words.append(str(finding['stage']))
    if finding['frame'] is not None:
        frames = ranges(finding['frames'])
        words.append(frames if frames.split('-')[0].split(',')[0] == str(finding['frame'])
                     else f'{finding["frame"]}' + (f'({frames})' if frames else ''))
    return ' '.join(words) + (f' x{finding["times"]}' if finding['times'] > 1 else '')
