"""A private bus without a gateway around it, and independent modules on it (python3-dbus)."""
import dbus
import dbus.bus
import dbus.lowlevel
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

from .processes import ProcessGroup
from .sandbox import REPOSITORY
from .waiting import SCALE, poll

DBusGMainLoop(set_as_default=True)
DRIVER = "org.freedesktop.DBus"
ACCESS_DENIED = f"{DRIVER}.Error.AccessDenied"


def pump():
    while GLib.MainContext.default().iteration(False):
        pass


class Processes(ProcessGroup):
    """A bus and the programs around it."""

    def __init__(self, directory, address, configuration, *wrapper):
        super().__init__(directory)
        self.address = address
        self.start("bus", *wrapper, "dbus-daemon", "--nofork", "--nopidfile", "--print-address",
                   f"--address={address}", f"--config-file={REPOSITORY}/{configuration}")
        self.wait_for_line("bus", address)


class Peer:
    """One connection. Calls and signals are stored in `received` as (member, argument...). A call
    is answered with 0."""

    def __init__(self, address, name=None):
        self.bus, self.received = dbus.bus.BusConnection(address), []
        self.bus.set_exit_on_disconnect(False)
        self.bus.add_message_filter(self._receive)
        assert name is None or self.own(name) == 1

    def _receive(self, bus, message):
        call = isinstance(message, dbus.lowlevel.MethodCallMessage)
        signal = isinstance(message, dbus.lowlevel.SignalMessage)
        if call or signal and message.get_sender() != DRIVER:
            self.received.append((message.get_member(), *message.get_args_list()))
        if call:
            answer = dbus.lowlevel.MethodReturnMessage(message)
            answer.append(0, signature="i")
            bus.send_message(answer)
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED

    def begin(self, name, member, signature="", *arguments, to=None, interface=..., seconds=5):
        """Calls; the answer, or the error's name, will be the only item of the list returned."""
        answers = []
        self.bus.call_async(
            to or name, "/" + name.replace(".", "/"), name if interface is ... else interface,
            member, signature, arguments,
            lambda *answer: answers.append(answer[0] if len(answer) == 1 else answer),
            lambda error: answers.append(error.get_dbus_name()), timeout=seconds * SCALE)
        return answers

    def call(self, name, member, signature="", *arguments, **options):
        return self.wait(self.begin(name, member, signature, *arguments, **options))

    def wait(self, items):
        """The first item that comes to a list."""
        poll(lambda: pump() or items, 10, "something from the bus")
        return items[0]

    def own(self, name):
        """The bus's answer to a request for a name: 1 for its owner, or the error's name."""
        return self.call(DRIVER, "RequestName", "su", name, dbus.UInt32(4))  # 4: do not queue

    def signal(self, interface, member, *arguments, to=None):
        """Sends a signal, to all or to one name; the bus has dealt with it on return."""
        message = dbus.lowlevel.SignalMessage("/" + interface.replace(".", "/"), interface, member)
        message.append(*arguments)
        if to:
            message.set_destination(to)
        self.bus.send_message(message)
        self.call(DRIVER, "GetId")
