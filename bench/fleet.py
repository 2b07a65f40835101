#!/usr/bin/env python3
"""fleet.py [--short] [--hosts N] [--rate POINTS] [--outage SECONDS] ...

Simulates a fleet: each host has an agent that forwards to one database, which is away for a while.
Discrete events, no real time, the same result on each run. It says how many requests reach the
database in a second, how many points wait, how many are lost and when the last agent has caught up,
with --spread and with --no-spread, and with and without a bound of the rate after the outage.

The agents are modelled by tools/agent: batches, queue, pauses after failures, times of sending. The
costs of a request are those of docs/capacity.md. The database is a number of cores that serve
requests in the order of arrival.
"""

import argparse
import collections
import heapq
import random
import sys

# As tools/agent has them.
BATCH_POINTS = 10000
QUEUE_POINTS = 1000000
FORWARD_INTERVAL = 1.0  # a batch waits so long for more, where its agent has no time of its own
FIRST_PAUSE = 0.5
LONGEST_PAUSE = 30.0
TIMEOUT = 10.0
HOLD_PART = 4  # a queue that is fuller than one part of so many is sent at once

# Of docs/capacity.md: CPU seconds of the database.
REQUEST_COST = 140e-6
CONNECTION_COST = 140e-6
POINT_COST = 1.5e-6

ROUND_TRIP = 0.001
FLUSH_JITTER = 0.05  # from the boundary to the points' arrival at the agent, at most


class Database:
    """Cores that serve requests, first come first served."""

    def __init__(self, cores, away_from, away_until):
        self.free_at = [0.0] * cores
        self.away_from = away_from
        self.away_until = away_until
        self.attempts = collections.Counter()  # by second, also those that found nobody
        self.longest_reply = 0.0

    def is_away(self, now):
        return self.away_from <= now < self.away_until

    def serve(self, now, cost):
        """When the reply comes, and whether it does."""
        self.attempts[int(now)] += 1
        if self.is_away(now):
            return now + ROUND_TRIP, False
        end = max(now, heapq.heappop(self.free_at)) + cost
        heapq.heappush(self.free_at, end)
        if now < self.away_from < end:
            return self.away_from, False
        if end - now > TIMEOUT:
            return now + TIMEOUT, False  # the work is done all the same
        self.longest_reply = max(self.longest_reply, end - now)
        return end + ROUND_TRIP, True

    def come_back(self):
        """Nothing of what was under way is left."""
        self.free_at = [self.away_until] * len(self.free_at)


class Agent:
    def __init__(self, fleet, number):
        self.fleet = fleet
        self.random = random.Random(fleet.options.seed * 1000003 + number)
        self.part = self.random.random()  # stands for the hash of host and destination
        self.queue = collections.deque()  # [points, ready at], oldest first
        self.waiting = 0
        self.most_waiting = 0
        self.lost = 0
        self.failures = 0
        self.connected = False
        self.sending = False
        self.catching_up = False
        self.send_at = 0.0
        self.due = self.next_time(0.0)  # its next time of sending, with --spread
        self.caught_up = 0.0
        self.wakes_at = None

    def next_time(self, now):
        interval = self.fleet.options.interval
        start = now // interval * interval + self.part * interval
        return start if start > now else start + interval

    def take_points(self, now):
        if self.due < now and not self.queue:
            self.due = self.next_time(now)  # there was nothing to send at the last one
        left = int(self.fleet.options.rate * self.fleet.options.interval)
        while left > 0:
            points = min(left, BATCH_POINTS)
            left -= points
            self.queue.append((points, now + FORWARD_INTERVAL))
            self.waiting += points
        while self.waiting > QUEUE_POINTS:
            points = self.queue.popleft()[0]
            self.waiting -= points
            self.lost += points
        self.most_waiting = max(self.most_waiting, self.waiting)
        self.go_on(now)

    def earliest(self, now):
        """When the oldest batch may be sent."""
        if self.catching_up:
            return max(self.send_at, now)
        if not self.fleet.spread:
            return self.queue[0][1]
        return now if self.waiting > QUEUE_POINTS / HOLD_PART else self.due

    def go_on(self, now):
        if self.sending:
            return
        if not self.queue:
            if self.catching_up:
                self.catching_up = False
                self.caught_up = now
            self.due = self.next_time(now)
            return
        at = self.earliest(now)
        if at > now:
            if self.wakes_at is None or at < self.wakes_at or self.wakes_at <= now:
                self.wakes_at = at
                self.fleet.at(at, self.go_on)
            return
        points = self.queue[0][0]
        cost = REQUEST_COST + POINT_COST * points + (0 if self.connected else CONNECTION_COST)
        end, taken = self.fleet.database.serve(now, cost)
        self.sending = True
        self.fleet.at(end, self.take_reply if taken else self.take_failure)

    def take_reply(self, now):
        self.sending = False
        self.connected = True
        self.failures = 0
        if self.queue:  # else it had to go meanwhile
            points = self.queue.popleft()[0]
            self.waiting -= points
            if self.catching_up and self.fleet.catch_up > 0:
                rate = max(self.fleet.catch_up * self.fleet.options.rate, self.fleet.options.floor)
                self.send_at = now + points / rate
        self.go_on(now)

    def take_failure(self, now):
        self.sending = False
        self.connected = False
        self.catching_up = True
        full = min(FIRST_PAUSE * 2 ** min(self.failures, 20), LONGEST_PAUSE)
        self.failures += 1
        self.send_at = now + full - self.random.uniform(0, full / 2)
        self.go_on(now)


class Fleet:
    def __init__(self, options, spread, catch_up):
        self.options = options
        self.spread = spread
        self.catch_up = catch_up
        self.events = []
        self.count = 0  # of events, which orders those of one time
        self.database = Database(options.cores, options.before, options.before + options.outage)
        self.agents = [Agent(self, number) for number in range(options.hosts)]

    def at(self, time, call):
        self.count += 1
        heapq.heappush(self.events, (time, self.count, call))

    def flush(self, now):
        """All services of all hosts flush at the same boundaries."""
        for agent in self.agents:
            self.at(now + agent.random.uniform(0, FLUSH_JITTER), agent.take_points)
        if now + self.options.interval < self.end:
            self.at(now + self.options.interval, self.flush)

    def run(self):
        self.end = self.options.before + self.options.outage + self.options.after
        self.at(0.0, self.flush)
        self.at(self.database.away_until, lambda now: self.database.come_back())
        while self.events and self.events[0][0] < self.end:
            now, _, call = heapq.heappop(self.events)
            call(now)

    def arrivals(self, start, end):
        """p50, p99 and maximum of a second."""
        seconds = sorted(self.database.attempts[second] for second in range(int(start), int(end)))
        return [seconds[len(seconds) // 2], seconds[len(seconds) * 99 // 100], seconds[-1]]


def text_of(numbers):
    return " / ".join(f"{number:,}" for number in numbers)


def caught_up(fleet):
    if any(agent.catching_up for agent in fleet.agents):
        return "not within the time"
    return f"{max(agent.caught_up for agent in fleet.agents) - fleet.database.away_until:.0f} s"


def row(fleet):
    database, options = fleet.database, fleet.options
    warm = 2 * options.interval  # connections are made before
    return [
        "on" if fleet.spread else "off",
        f"{fleet.catch_up:g}" if fleet.catch_up > 0 else "none",
        text_of(fleet.arrivals(warm, database.away_from)),
        text_of(fleet.arrivals(database.away_from, database.away_until)),
        text_of(fleet.arrivals(database.away_until, fleet.end)),
        f"{database.longest_reply:.2f} s",
        f"{max(agent.most_waiting for agent in fleet.agents):,}",
        f"{sum(agent.lost for agent in fleet.agents):,}",
        caught_up(fleet),
    ]


HEAD = ["Spread", "Bound", "Requests a second before: p50 / p99 / max", "Attempts a second in the outage",
        "Requests a second after it", "Longest reply", "Longest queue, points", "Points lost",
        "All caught up after"]


def parse():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--short", action="store_true", help="200 hosts and a minute of outage")
    parser.add_argument("--hosts", type=int, default=10000)
    parser.add_argument("--rate", type=float, default=100, help="points a second of a host")
    parser.add_argument("--interval", type=int, default=10, help="of the services, seconds")
    parser.add_argument("--cores", type=int, help="of the database; default: twice the mean load")
    parser.add_argument("--before", type=int, default=60, help="seconds before the outage")
    parser.add_argument("--outage", type=int, default=600, help="seconds")
    parser.add_argument("--after", type=int, default=1200, help="seconds after it")
    parser.add_argument("--catch-up", type=float, default=2.0, help="the bound, times the rate")
    parser.add_argument("--floor", type=float, default=20.0, help="the bound at least, points a second")
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    if options.short:
        options.hosts, options.outage, options.after = 200, 60, 180
    if options.cores is None:
        requests = -(-options.rate * options.interval // BATCH_POINTS) / options.interval
        load = options.hosts * (requests * REQUEST_COST + options.rate * POINT_COST)
        options.cores = max(1, -int(-2 * load // 1))
    return options


def check(fleets):
    """What the spread and the bound are there for; so that a run shows more than that it ends."""
    peaks = {(fleet.spread, fleet.catch_up > 0): [max(fleet.database.attempts[second]
             for second in range(int(start), int(end))) for start, end in
             [(20, fleet.database.away_from), (fleet.database.away_until, fleet.end)]]
             for fleet in fleets}
    if peaks[True, True][0] * 2 > peaks[False, True][0] or peaks[True, True][1] > peaks[True, False][1]:
        sys.exit(f"the spread or the bound has no effect: {peaks}")


def main():
    options = parse()
    fleets = [Fleet(options, spread, catch_up)
              for spread in (False, True) for catch_up in (0.0, options.catch_up)]
    print(f"{options.hosts:,} hosts of {options.rate:g} points a second, flushed every {options.interval} s; "
          f"a database of {options.cores} cores is away for {options.outage} s\n")
    print("| " + " | ".join(HEAD) + " |\n|" + "---|" * len(HEAD), flush=True)
    for fleet in fleets:
        fleet.run()
        print("| " + " | ".join(row(fleet)) + " |", flush=True)
    check(fleets)


if __name__ == "__main__":
    main()
