"""What is judged at rest, announcements and growth, and what a run is made of."""

import pytest

from faults import faults
from messages import message_maker, number_in
from resources import growth_faults, usage_t
from schedule import schedule
from status_model import established, status_model, stopped

events_of_two_connections = [stopped, established, stopped, established]
words_of_two_connections = ["disconnected"] * 3 + ["connected"] + ["disconnected"] * 2 + \
    ["connected"]


def status_faults(words, events, asked=0, **more):
    model = status_model(**more)
    for word in words:
        model.came(word)
    model.asked = asked
    return model.faults(events)


# A failed attempt, a connection, its end and the next are told by 3, 1, 2 and 1 messages.
def test_announcements_in_the_right_places_are_right():
    assert status_faults(words_of_two_connections, events_of_two_connections) == []


# Each single announcement that is missing is reported.
@pytest.mark.parametrize("missing", range(7))
def test_missing_announcement_is_reported(missing):
    words = words_of_two_connections[:missing] + words_of_two_connections[missing + 1:]
    assert len(status_faults(words, events_of_two_connections)) == 1


# Each single announcement that comes twice, with no request that it could answer, is reported.
@pytest.mark.parametrize("doubled", range(7))
def test_doubled_announcement_is_reported(doubled):
    words = words_of_two_connections[:doubled + 1] + words_of_two_connections[doubled:]
    assert status_faults(words, events_of_two_connections) == \
        ["status: 0 requests got 1 answers"]


# An announcement too few in one place and one too many in another do not make up for each other.
def test_announcement_in_the_wrong_place_is_reported():
    words = ["disconnected"] * 3 + ["connected"] * 2 + ["disconnected", "connected"]
    assert status_faults(words, events_of_two_connections) == [
        'status: "disconnected" came 1 times in a row, not 2: disconnected x3, connected x2, '
        "disconnected x1, connected x1 instead of disconnected x3, connected x1, "
        "disconnected x2, connected x1"]


# One request and one message more than the announcements are right; two requests are not.
@pytest.mark.parametrize("asked, faults", [(1, 0), (2, 1)])
def test_each_request_must_be_answered_once(asked, faults):
    words = [*words_of_two_connections, "connected"]
    assert len(status_faults(words, events_of_two_connections, asked)) == faults


# The first announcements of a new daemon may find no listener; a later one may not be missing.
def test_only_the_start_of_a_new_daemon_may_go_unheard():
    heard = ["connected", "disconnected", "disconnected", "connected"]
    assert status_faults(heard, events_of_two_connections, start_may_be_unheard=True) == []
    assert status_faults(heard[:2] + heard[3:], events_of_two_connections,
                         start_may_be_unheard=True) != []


# A descriptor, a thread, or memory beyond the limit more than before is reported; less memory not.
@pytest.mark.parametrize("after, named", [
    ((900, 500, 9, 4), []), ((1200, 600, 9, 4), []), ((1200, 601, 9, 4), ["memory"]),
    ((900, 500, 10, 4), ["descriptors"]), ((900, 500, 9, 5), ["threads"])])
def test_growth_is_reported(after, named):
    before = usage_t(pss_kb=1000, anonymous_kb=500, descriptors=9, threads=4)
    found = growth_faults(before, usage_t(*after), [], limit_kb=100)
    assert [text.split(":")[0] for text in found] == named


# Memory that grows by more than a quarter of the limit from each third to the next is reported.
@pytest.mark.parametrize("thirds, faults", [([500, 526, 552], 1), ([500, 526, 551], 0),
                                            ([600, 500, 526], 0)])
def test_trend_of_the_thirds_is_reported(thirds, faults):
    usage = usage_t(pss_kb=1000, anonymous_kb=500, descriptors=9, threads=4)
    assert len(growth_faults(usage, usage, thirds, limit_kb=100)) == faults


def first_entries(seed, count=120):
    entries = schedule(faults, seed)
    return [(e.fault.name, e.choices.random(), e.pause_seconds)
            for e, _ in zip(entries, range(count))]


# Seed 7 gives the same 120 faults, with the same choices and pauses, each time; seed 8 others.
def test_schedule_is_a_function_of_the_seed():
    assert first_entries(7) == first_entries(7)
    for seventh, eighth in zip(zip(*first_entries(7)), zip(*first_entries(8))):
        assert seventh != eighth


# The first round of any schedule holds every fault exactly once.
def test_first_round_holds_every_fault_once():
    names = [name for name, _, _ in first_entries(1, len(faults))]
    assert sorted(names) == sorted(fault.name for fault in faults)


# From the second round on a fault stands in each round as often as its weight says, 0 times even.
def test_later_rounds_hold_each_fault_by_its_weight():
    weights = {fault.name: fault.weight for fault in faults}
    names = [name for name, _, _ in first_entries(1, len(faults) + sum(weights.values()))]
    assert {name: names.count(name) - 1 for name in weights} == weights


# Messages have the size asked for, or more when their number needs it, one line when it has to be.
@pytest.mark.parametrize("size", [1, 20, 100, 125, 4096, 100000])
def test_messages_are_made_to_measure(size):
    maker = message_maker("up", 1)
    for one_line in (True, False) * 20:
        number, payload = maker.make(size, one_line)
        assert number_in(payload, "up") == number
        assert len(payload) == max(size, len(b"soak up %d " % number))
        assert not one_line or b"\n" not in payload
