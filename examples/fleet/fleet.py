#!/usr/bin/python3
# Explains all captures in folders, several at once, and gathers the accounts in one table.
#
# The table has a row for each scene, with its counts and no check, and one for each finding; a capture
# with neither is a row, too. So is a capture that was not explained: its check is not-read, and the
# message says why.

import argparse
import collections
import contextlib
import csv
import json
import os
import re
import shutil
import subprocess
import sys
import zipfile

try:
    import distributed
except ImportError:
    sys.exit('fleet.py: error: Dask is missing: install the Debian package python3-distributed')

COLUMNS = 'capture device build scene check severity stage node frames harmed never_out late not_boosted message'
REPORT = re.compile(r'(^|/)bugreport-[^/]*\.txt$')
# Each begins with a text and no choice, which makes them ten times as fast.
PHONE = [re.compile(rb'\[ro\.product\.model\]: \[(?P<device>[^]\r\n]+)\]'), re.compile(
    rb"fingerprint(?:(?<=Build fingerprint): '?|(?<=\[ro.build.fingerprint)\]: \[)(?P<build>[^]'\r\n]+)[]'\r\n]")]


# All files but hidden ones and tables, in an order that is not the disk's.
def captures(paths):
    for path in paths:
        yield from [] if os.path.isdir(path) else [path]
        for folder, folders, files in os.walk(path):
            folders.sort()
            yield from (os.path.join(folder, name) for name in sorted(files)
                        if not name.startswith('.') and not name.endswith(('.csv', '.csv.part')))


# Device and build, as far as a bug report names them. An error in the report is left to explain.
def phone_of(path):
    found, end = {}, b''
    with contextlib.suppress(Exception), open(path, 'rb') as file:
        if zipfile.is_zipfile(path):
            file = (archive := zipfile.ZipFile(file)).open(next(filter(REPORT.search, archive.namelist())))
        while len(found) < 2 and (piece := file.read(1 << 20)):
            for match in filter(None, (pattern.search(end + piece) for pattern in PHONE)):
                found.setdefault(match.lastgroup, match[match.lastgroup].decode(errors='replace'))
            end = piece[-1000:]
    return found


def not_read(reason):
    return {'check': 'not-read', 'severity': 'error', 'message': str(reason).strip()}


# Runs on a worker. It changes nothing, so that another worker can run it again if this one is lost.
def rows_of(command, path, timeout):
    done = subprocess.run([command, 'explain', '--json', path], capture_output=True, timeout=timeout)
    phone, account, rows = phone_of(path), json.loads(done.stdout or '{}'), []
    if account.get('version') != 2:
        return [phone | not_read(done.stderr.decode(errors='replace') or 'no account of version 2')]
    for number, scene in enumerate([account, *account['scenes']]):  # Some findings are about no scene.
        nodes = {stage['stage']: stage['node'] for stage in scene.get('stages', ())}
        if number > 0:
            rows.append({'scene': number, 'frames': scene['frames']['all'], 'late': scene['late'],
                         'never_out': len(scene['neverOut']), 'not_boosted': scene['notBoosted']})
        for finding in scene['findings']:
            # Each frame is counted once: for the finding that harmed it.
            rows.append(finding | {
                'scene': number or '', 'node': nodes.get(finding['stage'], ''),
                'frames': sum(b - a + 1 for a, b in finding['frames']),
                'harmed': sum(b - a + 1 for a, b in finding['harmed']),
                'never_out': sum(any(a <= n <= b for a, b in finding['harmed'])
                                 for n in scene.get('neverOut', ()))})
    return [phone | row for row in rows or [{}]]


def finished(path, job):
    # This capture need not be the one that took one worker after another with it.
    if isinstance(job.exception(), distributed.KilledWorker):
        job.retry()
    rows = [not_read(job.exception())] if job.exception() else job.result()
    return [{'capture': path} | row for row in rows]


# The rows of each capture, in the order of captures. One that takes long holds up those behind it,
# so each thread of a worker has a few; no more are on the way, so that no more are held.
def explained(client, args):
    jobs = collections.deque()
    for path in captures(args.paths):
        jobs.append((path, client.submit(rows_of, args.command, os.path.abspath(path), args.timeout)))
        if len(jobs) >= 4 * max(1, sum(client.nthreads().values())):
            yield finished(*jobs.popleft())
    yield from (finished(*job) for job in jobs)


def connected(parser, args):
    if not args.scheduler:
        return distributed.Client(n_workers=args.workers, threads_per_worker=1, dashboard_address=None)
    try:
        return distributed.Client(args.scheduler, timeout=10)
    except (OSError, ValueError) as error:  # ValueError: it is no address.
        parser.error(f'there is no scheduler at {args.scheduler}: {error}')


def main():
    parser = argparse.ArgumentParser(description='Explains captures, and writes one table of all.')
    parser.add_argument('paths', nargs='+', metavar='CAPTURE', help='files, or folders of them')
    parser.add_argument('-o', dest='table', required=True, help='the table to write, as CSV')
    parser.add_argument('--command', default='cameraframeboost', help='the command on each worker')
    parser.add_argument('--workers', type=int, default=os.cpu_count(), help='on this machine')
    parser.add_argument('--scheduler', help='the address of a cluster, instead of this machine')
    parser.add_argument('--timeout', type=float, default=60, help='seconds that a capture may take')
    args = parser.parse_args()
    if not (total := sum(1 for _ in captures(args.paths))):
        parser.error(f'there is no file in {" ".join(args.paths)}')
    sums = collections.defaultdict(collections.Counter)
    with connected(parser, args) as client:
        if not all(client.run(shutil.which, args.command).values()):
            parser.error(f'{args.command} is not installed on every worker')
        with open(args.table + '.part', 'w', newline='', errors='surrogateescape') as file:
            table = csv.DictWriter(file, COLUMNS.split(), extrasaction='ignore')
            table.writeheader()
            for done, rows in enumerate(explained(client, args), 1):
                table.writerows(rows)
                for row in (row for row in rows if row.get('severity') != 'note'):
                    counts = {name: row.get(name, 0) for name in ('frames', 'never_out')}
                    sums[row.get('check', ''), row.get('node', '')].update(rows=1, **counts)
                if sys.stderr.isatty():
                    print(end=f'\r{"#" * (60 * done // total):-<60} {done}/{total}', file=sys.stderr)
    os.replace(args.table + '.part', args.table)
    print('  rows    frames  never out  check and node')
    for (check, node), kind in sorted(sums.items(), key=lambda one: (
            one[0][0] > '', -one[1]['never_out'], -one[1]['rows'])):
        print(f'{kind["rows"]:6} {kind["frames"]:9} {kind["never_out"]:10}  {check or "scenes"} {node}')


if __name__ == '__main__':
    main()
