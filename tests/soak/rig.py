"""The daemon between a bus and a service, with the models that judge both directions."""

import contextlib
import json
import random
import signal
import threading
import time
import traceback

from harness.bus_peer import bus_peer, is_status, received_t, status_request
from harness.frames import frame, opcode_ping
from harness.pacing import is_event
from harness.sandbox import sandbox
from harness.vemk_daemon import config_text, vemk_daemon
from harness.waiting import slowdown, wait_until

from down_model import down_model
from log_tail import log_tail
from messages import message_maker
from service import always, service
from sending_styles import one_frame
from status_model import status_model
from up_model import up_model

# A suspended daemon takes nothing for some seconds, and that is no reason to give up.
send_seconds = 30
# While the module is away, what it left in its inbox is never confirmed.
send_seconds_while_away = 5
heal_seconds = 60

# The allocator keeps freed megabytes for the next large message, more or less of them as it comes.
# With these settings it gives them back, so that what a daemon holds is what it did not free.
eager_to_give_back = {"MALLOC_MMAP_THRESHOLD_": "65536", "MALLOC_TRIM_THRESHOLD_": "65536"}


class soak_failed(Exception):
    """Something was seen that must not be, or not seen that must be; the violations say what."""


class interrupted(Exception):
    """The run is to end now."""


class judging_listener(bus_peer):
    """A listener that hands each message on as it comes and keeps none."""

    def __init__(self, place, on_message):
        super().__init__(place)
        self.on_message = on_message

    def read_messages(self):
        for line in self.listener.stdout:
            self.on_message(received_t(time.monotonic(), bytes.fromhex(line.decode())))


class rig:
    """One daemon at a time in a sandbox, its service and its bus; every event goes to a model.

    All that two threads may touch is guarded by `lock`. `sending_up` and `sending_down` keep the
    order of the models' entries that of the sending. `relay` may stand between daemon and service:
    it gets the service's port and returns the one that the daemon is to use.
    """

    def __init__(self, build_folder, companion_folder, seed, relay=None, answers_ping=always,
                 interrupt=None):
        self.lock = threading.RLock()
        self.sending_up = threading.RLock()
        self.sending_down = threading.RLock()
        self.interrupt = interrupt or threading.Event()
        self.interrupted = False
        self.judging = True
        self.violations = []
        self.up = up_model(self.violate)
        self.down = down_model(self.violate)
        self.status = status_model(start_may_be_unheard=True)
        self.up_messages = message_maker("up", seed)
        self.down_messages = message_maker("down", seed)
        self.connection = 0
        self.connections_made = 0
        self.dropped = set()
        self.attempts = {}
        self.pings = 0
        self.pongs = 0
        self.bus_away = False
        self.place = sandbox(build_folder, companion_folder)
        self.service = service(self.take_event, answers_ping).start()
        self.resume_service = self.service.suspend()
        port = relay(self.service.port) if relay else self.service.port
        self.url = f"ws://127.0.0.1:{port}/roam"
        self.bus = judging_listener(self.place, self.hear).listen()
        self.daemons = []
        self.event_pacing = is_event or random.Random(f"pacing {seed}").random() < 0.5
        self.start_daemon()

    def start_daemon(self):
        """Starts one with the other pacing than that before it, unless the environment sets it."""
        pacing = "event" if self.event_pacing else "steps"
        self.daemon = vemk_daemon(self.place, f"{pacing}-{len(self.daemons) + 1}")
        self.daemon.start(config_text(self.url, initial_delay=1, max_delay=2, log_level=15,
                                      event_pacing=self.event_pacing),
                          environment=eager_to_give_back)
        self.event_pacing = is_event or not self.event_pacing
        self.daemons.append(self.daemon)
        self.log = log_tail(self.daemon.log_file)

    def begin(self):
        """Lets the first daemon connect when there is a listener to hear of it."""
        self.bus.wait_listening()
        self.resume_service()
        self.wait(self.is_connected, "the first connection")

    def close(self):
        self.judging = False
        self.resume_service()
        if self.daemon.process:
            self.daemon.process.send_signal(signal.SIGCONT)
        for daemon in self.daemons:
            daemon.stop()
        self.log.stop()
        self.bus.stop()
        self.service.shut_down()
        self.place.remove()

    def violate(self, what):
        if self.judging:
            self.violations.append(what)

    @contextlib.contextmanager
    def judged(self):
        """Steps that end with the first violation, or with the interrupt."""
        try:
            yield
        except interrupted:
            self.interrupted = True
        except soak_failed:
            pass
        except Exception as error:  # whatever it is, the steps showed nothing
            traceback.print_exc()
            self.violate(repr(error))

    # Events, each on the thread of who tells it.

    def take_event(self, word, *details):
        with self.lock:
            getattr(self, f"service_{word}")(*details)

    def service_attempt(self, mode):
        self.attempts[mode] = self.attempts.get(mode, 0) + 1

    def service_upgraded(self, connection, mode):
        if self.connection and self.connection not in self.dropped:
            self.violate(f"connection {connection} was made while {self.connection} was up")
        self.connections_made += 1
        self.down.established(connection)
        self.up.established()
        self.connection = connection
        if mode == "reset":
            self.expect_drop(connection)

    def service_message(self, connection, payload):
        self.up.came(connection, payload)

    def service_ping(self, connection, payload):
        self.pings += 1
        if payload:
            self.violate(f"a ping with the payload {payload!r}")

    def service_pong(self, connection):
        self.pongs += 1

    def service_broken(self, what):
        self.violate(f"the service: {what}")

    def service_ended(self, connection):
        if connection not in self.dropped:
            self.expect_drop(connection)
            self.violate(f"connection {connection} ended without a fault")

    def hear(self, received):
        with self.lock:
            if is_status(received.payload):
                self.status.came(json.loads(received.payload)["cmd"])
            else:
                self.down.came(received.payload)

    # What is sent.

    def send_up(self, sizes=(), one_by_one=False, odd_lines=()):
        """Sends new messages of these sizes, None for any, to the daemon; returns their numbers.

        They go on lines of one sender, with the `odd_lines` between them, or each as it is.
        """
        with self.sending_up:
            messages = [self.up_messages.make(size, not one_by_one) for size in sizes]
            with self.lock:
                away = self.bus_away
                for number, payload in messages:
                    self.up.begun(number, payload, uncertain=away)
                self.status.asked += odd_lines.count(status_request)
            payloads = [payload for _, payload in messages]
            for line in odd_lines:
                payloads.insert(self.up_messages.random.randint(0, len(payloads)), line)
            if one_by_one:
                taken = all([self.hand_over(away, payload, "-") for payload in payloads])
            else:
                lines = b"".join(payload + b"\n" for payload in payloads)
                taken = self.hand_over(away, lines, "--lines", "-")
            with self.lock:
                for number, _ in messages if taken else ():
                    self.up.taken(number)
                if not taken and not away:
                    self.violate("the module did not take messages from the bus")
            return [number for number, _ in messages]

    def hand_over(self, away, data, *arguments):
        seconds = str((send_seconds_while_away if away else send_seconds) * slowdown)
        return self.bus.run("send", *arguments, "--timeout", seconds, data=data).returncode == 0

    def send_down(self, style=one_frame, size=None, bytewise=False, piecewise=False):
        """Sends a new message in a style on the connection that is up; returns its number.

        Returns 0 without sending when no connection is up. `bytewise` makes each byte a segment;
        `piecewise` sends each frame only when the daemon has read the one before it.
        """
        with self.sending_down:
            number, payload = self.down_messages.make(size, one_line=False)
            sent = style(payload, self.down_messages.random)
            with self.lock:
                connection = self.connection
                if not self.is_connected():
                    return 0
                self.down.sending(connection, number, sent.kept, sent.completes)
            if piecewise:
                self.write_piecewise(connection, sent.wire)
            else:
                self.service.write(connection, sent.wire, bytewise)
            return number

    def write_piecewise(self, connection, frames):
        for one in frames:
            answered = self.pongs + 1
            self.service.write(connection, [one, frame(opcode_ping, b"read")])
            self.wait(lambda: self.pongs >= answered, "the pong behind a frame")

    def ask_status(self):
        """Asks for the state, and returns the word of the next status message."""
        with self.lock:
            heard = len(self.status.words)
        self.send_up(odd_lines=[status_request])
        self.wait(lambda: len(self.status.words) > heard, "answer to a status request")
        return self.status.words[heard]

    # What is waited for.

    def wait(self, condition, what, seconds=heal_seconds):
        """Until the condition holds; ends the run at a violation, and when the time is over."""
        def seen():
            self.check()
            with self.lock:
                return condition()

        try:
            wait_until(seen, what, seconds)
        except AssertionError as missing:
            self.violate(str(missing))
            self.check()

    def sleep(self, seconds):
        """A while in which nothing is to happen but traffic."""
        end = time.monotonic() + seconds
        self.wait(lambda: time.monotonic() >= end, "the end of a pause", seconds + heal_seconds)

    def check(self):
        if not self.daemon.runs():
            self.violate(f"the daemon ended with status {self.daemon.process.returncode}")
        self.violations += [r for r in self.log.reports if r not in self.violations]
        if not self.bus.listener or self.bus.listener.poll() is not None:
            self.violate("the listener on the bus ended")
        if self.violations:
            self.judging = False
            raise soak_failed
        if self.interrupt.is_set():
            raise interrupted

    def is_connected(self):
        return self.connection != 0 and self.connection not in self.dropped

    def expect_drop(self, connection, cut_exactly=False):
        """The connection is about to end, by a fault."""
        if connection not in self.dropped:
            self.dropped.add(connection)
            self.down.dropped(connection, cut_exactly)
            self.up.dropped()

    def heal(self):
        """Returns when the daemon is connected and a message has come through each way."""
        self.wait(self.is_connected, "a connection")
        self.probe()

    def probe(self):
        up_number = self.send_up([None])[0]
        down_number = self.send_down()
        if not down_number:
            self.violate("the connection went down while nothing was done to it")
        self.wait(lambda: up_number in self.up.seen, f"message {up_number} at the service")
        self.wait(lambda: down_number in self.down.seen, f"message {down_number} on the bus")

    def hear_again(self):
        """Returns when a listener hears the daemon; its answers may get lost before."""
        while True:
            with self.lock:
                heard = len(self.status.words)
                self.status.unsure += 1
            self.send_up(odd_lines=[status_request])
            with contextlib.suppress(AssertionError):
                wait_until(lambda: self.check() or len(self.status.words) > heard, "an answer", 3)
                return

    def judge_status(self):
        """To be called at rest: connected, and all that was sent has arrived."""
        def nothing_wrong():
            self.status_faults = self.status.faults(self.log.events)
            return not self.status_faults

        try:
            self.wait(nothing_wrong, "the status messages", seconds=5)
        except soak_failed:
            self.violations += self.status_faults
            raise
