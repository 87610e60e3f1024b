"""What a run of the soak ends with."""


def print_report(run, beside, options):
    """Prints one screen, more when something is wrong; returns the exit status."""
    violations = run.rig.violations + beside.violations()
    for line in report_lines(run, beside, options, violations):
        print(line)
    if violations:
        print("\nWhat is wrong:")
        for violation in list(dict.fromkeys(violations))[:20]:
            print(f"  {violation}")
        print(f"  (during: {run.current})\n\nThe daemon's log ends:")
        for line in run.rig.log.last_lines()[-40:]:
            print(f"  {line[:160]}")
        print(f"\nAgain with the same faults: make soak MINUTES={options.minutes:g} "
              f"SEED={options.seed}")
    return 1 if violations else 0


def report_lines(run, beside, options, violations):
    rig, up, down = run.rig, run.rig.up, run.rig.down
    yield f"--- soak: seed {options.seed}, {run.minutes:.1f} of {options.minutes:g} minutes"
    yield f"faults      {sum(run.injected.values())} of {len(run.injected)} kinds"
    yield from columns(sorted(f"{count} {name}" for name, count in run.injected.items()))
    yield (f"connections {rig.connections_made} made, {sum(rig.attempts.values())} attempts "
           f"seen, {rig.pings} pings; longest to heal {run.longest_heal[0]:.1f} s "
           f"({run.longest_heal[1]})")
    for name, model in (("to service", up), ("to bus", down)):
        yield (f"{name:11} {model.sent} sent, {model.sent - len(model.exposed)} had to arrive, "
               f"{model.arrived} arrived, {model.lost} lost at a drop")
    for life in run.lives:
        yield from life_lines(life)
    yield from beside.report_lines()
    how = " (ended by hand)" if rig.interrupted else ""
    yield f"verdict     {'FAILED' if violations else 'passed'}{how}"


def life_lines(life):
    before, after = life.before, life.after
    if after is None:
        yield f"{life.name:11} {before.pss_kb} kB PSS after the warm-up, not judged to its end"
        return
    thirds = "/".join(map(str, life.trend.thirds())) or "-"
    yield (f"{life.name:11} PSS {before.pss_kb} -> {after.pss_kb} kB, of its own "
           f"{before.anonymous_kb} -> {after.anonymous_kb} kB (thirds {thirds}), descriptors "
           f"{before.descriptors} -> {after.descriptors}, threads {before.threads} -> "
           f"{after.threads}" + (", memory not judged: sanitizer" if life.has_sanitizer else ""))


def columns(texts, width=100, gap=3):
    """The texts side by side, as many in a line as fit."""
    widest = max(map(len, texts), default=1) + gap
    each = max(1, (width - 4) // widest)
    for start in range(0, len(texts), each):
        yield "    " + "".join(text.ljust(widest) for text in texts[start:start + each]).rstrip()
