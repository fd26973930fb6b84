#!/usr/bin/python3
"""Stands in for the routing daemon where a test decides how it ends: dies of any signal, ends with the status that it
is ordered to, and listens on the data socket without ever answering."""

import os
import resource
import signal
import socket
import time

DATA_SOCKET = "/tmp/bird_data_exp.ctl"
ORDER = "/run/lab-vyr-status"
READY = "/run/lab-vyr-ready"


def take_hangup():
    """A reload is nothing to it; from anybody but the daemon the signal kills it, as any other."""
    time.sleep(0.01)
    if signal.SIGHUP not in signal.sigpending():  # sigtimedwait makes one up where a stop outlasts its time
        return
    if signal.sigwaitinfo({signal.SIGHUP}).si_pid != os.getppid():
        signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGHUP})
        signal.raise_signal(signal.SIGHUP)


def main():
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGHUP})  # it is looked at before it may kill
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    for number in signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP}:
        signal.signal(number, signal.SIG_DFL)
    if os.path.exists(DATA_SOCKET):
        os.unlink(DATA_SOCKET)
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(DATA_SOCKET)
        listener.listen()
        with open(READY, "w", encoding="ascii") as ready:
            ready.write(str(os.getpid()))
        while not os.path.exists(ORDER):
            take_hangup()
    with open(ORDER, encoding="ascii") as order:
        os._exit(int(order.read()))


if __name__ == "__main__":
    main()
