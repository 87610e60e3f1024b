#!/usr/bin/python3
"""Runs the fuzz targets of a build side by side and sums up what each one did.

Inputs that reach something new, and those that fail, go into the build's folder, never into the
checkout. Exit status 1 when a target crashed, leaked, hung or differed from its model, or did not
run at all.
"""

import argparse
import pathlib
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

CHECKOUT = pathlib.Path(__file__).resolve().parent.parent
# Seconds for one input, and beyond the run's own for starting and stopping.
INPUT_LIMIT = 20
GRACE = 120
SHOWN_LINES = 40


def positive(text):
    value = int(text)
    if value <= 0:
        raise argparse.ArgumentTypeError(f'{text} is not a number of seconds above 0')
    return value


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('build', type=pathlib.Path, help='the folder of the fuzz build')
    parser.add_argument('targets', nargs='*', metavar='TARGET', help='default: every one built')
    parser.add_argument('--seconds', type=positive, default=60, help='for each target (default 60)')
    parser.add_argument('--jobs', type=positive, default=2, help='targets at a time (default 2)')
    parser.add_argument('--inputs', type=pathlib.Path, default=CHECKOUT / 'tests' / 'fuzz',
                        help='the folder with the seed corpora and the dictionaries')
    return parser.parse_args()


class Run:
    """One target's run: its folders, its log, and what the log says."""

    def __init__(self, arguments, target):
        self.target = target
        self.seconds = arguments.seconds
        self.program = arguments.build / 'fuzzers' / target
        self.findings = arguments.build / 'findings' / target
        self.corpus = arguments.build / 'corpus' / target
        self.log = arguments.build / 'logs' / f'{target}.log'
        # A second build of the same program shares its inputs.
        self.inputs = re.sub(r'_api_.*', '', target)
        self.seeds = arguments.inputs / 'corpus' / self.inputs
        self.dictionary = arguments.inputs / 'dictionaries' / f'{self.inputs}.dict'

    def command(self):
        command = [self.program, f'-max_total_time={self.seconds}', f'-timeout={INPUT_LIMIT}',
                   '-print_final_stats=1',
                   f'-artifact_prefix={self.findings}/']
        if self.dictionary.exists():
            command.append(f'-dict={self.dictionary}')
        return [str(word) for word in [*command, self.corpus, self.seeds]]

    def execute(self):
        for folder in (self.findings, self.corpus, self.log.parent):
            folder.mkdir(parents=True, exist_ok=True)
        with open(self.log, 'w') as log:
            try:
                status = subprocess.run(self.command(), stdin=subprocess.DEVNULL, stdout=log,
                                        stderr=subprocess.STDOUT,
                                        timeout=self.seconds + GRACE).returncode
                result = 'ok' if status == 0 else f'failed with status {status}'
            except subprocess.TimeoutExpired:
                result = 'failed: it did not end'
            except OSError as error:
                result = f'failed: {error.strerror}'
        return Outcome(self, result)


class Outcome:
    def __init__(self, run, result):
        self.run = run
        self.text = run.log.read_text(errors='replace')
        self.executions = self.last(r'^#(\d+)\s', r'number_of_executed_units: (\d+)')
        self.edges = self.last(r'cov: (\d+)')
        self.inputs = self.last(r'corp: (\d+)')
        self.reproducer = self.last(r'Test unit written to (\S+)')
        self.result = result
        if result == 'ok' and (self.reproducer or not int(self.executions or 0)):
            self.result = 'failed'

    def last(self, *patterns):
        found = [match for pattern in patterns
                 for match in re.findall(pattern, self.text, re.MULTILINE)]
        return found[-1] if found else ''

    def failed(self):
        return self.result != 'ok'

    def summary(self):
        return (f'{self.run.target:<16} {self.executions or "0":>10} executions '
                f'{self.edges or "0":>6} edges {self.inputs or "0":>6} inputs  {self.result}')

    def explanation(self):
        lines = self.text.splitlines()
        starts = [number for number, line in enumerate(lines)
                  if re.search(r'DIFFERENCE in|ERROR: |runtime error:|terminate called', line)]
        start = starts[0] if starts else max(0, len(lines) - SHOWN_LINES)
        shown = ['', f'{self.run.target}: {self.result}', f'  log: {self.run.log}']
        if self.reproducer:
            shown += [f'  input: {self.reproducer}',
                      f'  again: {self.run.program} {self.reproducer}']
        return '\n'.join(shown + ['    ' + line for line in lines[start:start + SHOWN_LINES]])


def main():
    arguments = parse_arguments()
    arguments.build = arguments.build.resolve()
    folder = arguments.build / 'fuzzers'
    targets = arguments.targets or sorted(path.name for path in folder.glob('*'))
    if not targets:
        print(f'run-fuzzers: there is no fuzz target in {folder}', file=sys.stderr)
        return 1
    with ThreadPoolExecutor(arguments.jobs) as pool:
        outcomes = []
        for outcome in pool.map(lambda target: Run(arguments, target).execute(), targets):
            print(outcome.summary(), flush=True)
            outcomes.append(outcome)
    failures = [outcome for outcome in outcomes if outcome.failed()]
    for outcome in failures:
        print(outcome.explanation())
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
