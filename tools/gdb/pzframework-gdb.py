"""gdb's view of the framework's objects: texts as texts, queues as lists, locks with their owners.

gdb loads this file together with the installed library; elsewhere `source` loads it. See
docs/gdb.md. It needs gdb 9 or later, and the debug information of the program or the library.

Nothing here calls into the program, so that core files are shown as well, and nothing trusts an
object: what is null, not yet constructed or overwritten is shown as far as it can be read. At most
as many elements are printed as `set print elements` says.
"""

import fcntl
import functools
import itertools
import os
import re
import stat
import struct
import termios
import time

import gdb
import gdb.printing
import gdb.types

MOST_ELEMENTS = 4096  # however many the user asks for: a count may be garbage

# What reading a broken object raises.
UNREADABLE = (gdb.error, RuntimeError, ValueError, TypeError, OverflowError, IndexError, KeyError,
              OSError, struct.error)


# What every printer needs.


def most_elements():
    """The limit of `set print elements`."""
    limit = gdb.parameter("print elements")
    return min(limit, MOST_ELEMENTS) if limit else MOST_ELEMENTS


def in_host_charset(text):
    """The text with escapes for what the terminal's character set does not have."""
    charset = gdb.host_charset() if hasattr(gdb, "host_charset") else "ascii"
    try:
        return text.encode(charset, "backslashreplace").decode(charset)
    except LookupError:
        return text.encode("ascii", "backslashreplace").decode("ascii")


def escaped(character):
    """A character as it stands between quotes; surrogates without a partner as \\udxxx."""
    special = {'"': '\\"', "\\": "\\\\"}
    if character in special:
        return special[character]
    if character.isprintable():
        return character
    return character.encode("unicode_escape").decode("ascii")


def escaped_byte(character):
    """The same for a decoded byte; those that the code page does not have as \\xnn."""
    if 0xDC80 <= ord(character) <= 0xDCFF:  # from "surrogateescape"
        return "\\x%02x" % (ord(character) - 0xDC00)
    return escaped(character)


def quoted(text, escape=escaped):
    """The text between quotes, on one line."""
    return '"' + in_host_charset("".join(escape(c) for c in text)) + '"'


def count_of(number, thing):
    return "%d %s%s" % (number, thing, "" if number == 1 else "s")


def unsigned(value, bits):
    return int(value) & ((1 << bits) - 1)


def memory(address, size):
    return bytes(gdb.selected_inferior().read_memory(address, size))


def hex_dump(address, size):
    """The bytes in two digits each, as many as the limit allows."""
    shown = min(size, most_elements())
    dump = memory(address, shown).hex(" ")
    return dump + " ..." if shown < size else dump


def is_pointer(type_):
    return type_.strip_typedefs().code == gdb.TYPE_CODE_PTR


def size_of_target(pointer):
    """The size of what the pointer's type points at."""
    return pointer.type.strip_typedefs().target().sizeof


def held_pointer(value):
    """The pointer in a std::unique_ptr or std::atomic, wherever it is nested; None without one."""
    for field in value.type.strip_typedefs().fields():
        if not hasattr(field, "bitpos"):
            continue  # a static member
        if is_pointer(field.type):
            return value[field]
        if field.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
            pointer = held_pointer(value[field])
            if pointer is not None:
                return pointer
    return None


def dynamic_name(pointer):
    """The class of the object that a base pointer leads to, and its address."""
    if int(pointer) == 0:
        return "null"
    name = str(pointer.dynamic_type.target().unqualified())
    return "%s at 0x%x" % (name, int(pointer))


def elements_of_vector(vector):
    """Address of the first element and the number of elements."""
    first, last = vector["_M_impl"]["_M_start"], vector["_M_impl"]["_M_finish"]
    return first, (int(last) - int(first)) // size_of_target(first)


def nodes_of_tree(tree):
    """The nodes of a std::map or std::set in order; ends at a link that leads nowhere."""
    header = tree["_M_t"]["_M_impl"]["_M_header"]
    count = unsigned(tree["_M_t"]["_M_impl"]["_M_node_count"], 64)
    node = header["_M_left"]
    for _ in range(min(count, MOST_ELEMENTS)):
        if int(node) == 0:
            return
        yield node
        node = next_node(node)


def next_node(node):
    """As the C++ library steps; a tree is no deeper than its longest walk here."""
    if int(node["_M_right"]) != 0:
        node = node["_M_right"]
        for _ in range(MOST_ELEMENTS):
            if int(node["_M_left"]) == 0:
                return node
            node = node["_M_left"]
        raise ValueError("broken tree")
    parent = node["_M_parent"]
    for _ in range(MOST_ELEMENTS):
        if node != parent["_M_right"]:
            break
        node, parent = parent, parent["_M_parent"]
    return parent if node["_M_right"] != parent else node


def items_of_map(map_):
    """Keys and values of a std::map."""
    pair = map_.type.strip_typedefs().template_argument(3).template_argument(0)
    for node in nodes_of_tree(map_):
        item = (node + 1).cast(pair.pointer()).dereference()
        yield item["first"], item["second"]


def keys_of_set(set_):
    """The keys of a std::set of pointers."""
    key = set_.type.strip_typedefs().template_argument(0)
    for node in nodes_of_tree(set_):
        yield (node + 1).cast(key.pointer()).dereference()


def elements_of_queue(queue):
    """The elements of a PZPriorityQueue in the order of service, and their number first."""
    ring = queue["ring_"]["_M_impl"]
    start, finish = ring["_M_start"], ring["_M_finish"]
    size = max(1, (int(finish) - int(start)) // size_of_target(start))
    front, count = unsigned(queue["front_"], 32), unsigned(queue["count_"], 32)
    yield count
    # The back is served first.
    for position in reversed(range(count)):
        yield start[(front + position) % size]


def thread_numbers():
    """gdb's numbers of the threads by their pthread_t, as far as it knows them."""
    numbers = {}
    for thread in gdb.selected_inferior().threads():
        try:
            handle = int.from_bytes(thread.handle(), "little")
        except (AttributeError,) + UNREADABLE:
            continue
        numbers[handle] = thread.num
    return numbers


def thread_text(handle):
    number = thread_numbers().get(handle)
    return "thread %d" % number if number is not None else "thread 0x%x" % handle


def is_live_here():
    """Whether the program runs on this machine, so that its clock and descriptors are ours."""
    inferior = gdb.selected_inferior()
    connection = getattr(inferior, "connection", None)
    return inferior.pid != 0 and connection is not None and connection.type == "native"


# The time at which the program stopped, in milliseconds of the monotonic clock.
stopped_at = None


def note_stop(event):
    global stopped_at
    stopped_at = int(time.clock_gettime(time.CLOCK_MONOTONIC) * 1000)


def readable(operation):
    """Makes an answer of whatever cannot be read."""
    @functools.wraps(operation)
    def guarded(*args):
        try:
            return operation(*args)
        except UNREADABLE as error:
            return "<not readable: %s>" % error
    return guarded


def readable_children(operation):
    """The children up to the one that cannot be read. gdb itself stops at the user's limit."""
    @functools.wraps(operation)
    def guarded(*args):
        try:
            for name, value in itertools.islice(operation(*args), MOST_ELEMENTS):
                yield name, value
        except UNREADABLE as error:
            yield "...", "<not readable: %s>" % error
    return guarded


# Texts and bytes.


# Of the code pages by script, Python's name. All others have the number or the name in common.
CODECS = {
    "XCP_LATIN_ASCII": "ascii", "XCP_ARABIC": "cp1256", "XCP_CYRILLIC": "cp1251",
    "XCP_LATIN_OEM": "cp850", "XCP_THAI": "cp874", "XCP_WESTERN": "cp1252",
    "XCP_GREEK": "cp1253", "XCP_TURKISH": "cp1254", "XCP_CP936": "gbk", "XCP_SJIS": "shift_jis",
    "XCP_ISO646_US": "ascii",
}


def quoted_bytes(text, page):
    """A narrow text; of a code page that Python does not have, the ASCII and escapes."""
    codec = CODECS.get(page) or page[len("XCP_"):].lower()
    try:
        decoded = text.decode(codec, "surrogateescape")
    except (LookupError, UnicodeError):
        decoded = text.decode("ascii", "surrogateescape")
    return quoted(decoded, escaped_byte)


def quoted_array(value):
    """A character array in UTF-8 up to its zero, or whole without one."""
    characters = bytes(unsigned(value[i], 8) for i in range(value.type.sizeof))
    return quoted_bytes(characters.split(b"\0")[0], "XCP_UTF8")


def quoted_wide(text):
    """Wide characters; numbers that are none as U+FFFD."""
    numbers = (number for number, in struct.iter_unpack("<I", text))
    return quoted("".join(chr(n) if n < 0x110000 else "\ufffd" for n in numbers))


def quoted_units(text, page):
    order = "utf-16-be" if page == "XCP_UTF16BE" else "utf-16-le"
    return quoted(text.decode(order, "surrogatepass"))


class Printer:
    """What is shown of one object."""

    def __init__(self, value):
        self.value = value


class StringPrinter(Printer):
    """PZString: the form that is held, its code page and the text."""

    @readable
    def to_string(self):
        page = str(self.value["codePage_"])
        narrow = held_pointer(self.value["narrow_"])
        wide = held_pointer(self.value["wide_"])
        units = held_pointer(self.value["units_"])
        if narrow:
            text, more = self.text_of(narrow.dereference(), 1)
            return "%s %s%s" % (page, quoted_bytes(text, page), more)
        if wide:
            text, more = self.text_of(wide.dereference(), 4)
            return "wide %s%s" % (quoted_wide(text), more)
        if units:
            text, more = self.units_of(units.dereference())
            return "%s %s%s" % (page, quoted_units(text, page), more)
        return "nothing" if page == "XCP_NONE" else "nothing, %s" % page

    @staticmethod
    def text_of(string, unit):
        """The bytes of a std::string or std::wstring, and dots when some are left out."""
        length = unsigned(string["_M_string_length"], 64)
        shown = min(length, most_elements())
        return memory(int(string["_M_dataplus"]["_M_p"]), shown * unit), "..." if shown < length else ""

    @staticmethod
    def units_of(vector):
        first, count = elements_of_vector(vector)
        count -= 1  # the terminator
        if count < 0:
            raise ValueError("16-bit text without terminator")
        shown = min(count, most_elements())
        return memory(int(first), shown * 2), "..." if shown < count else ""


def bytes_text(place, address, size):
    """How many bytes, the place in them, and the bytes."""
    head = "%s, %s" % (count_of(size, "byte"), place)
    return head if size == 0 else "%s: %s" % (head, hex_dump(address, size))


class BinaryPrinter(Printer):
    """PZBinary: size, cursor and the bytes."""

    @readable
    def to_string(self):
        size, cursor = unsigned(self.value["size_"], 32), unsigned(self.value["cursor_"], 32)
        buffer = held_pointer(self.value["buffer_"])
        return bytes_text("cursor at %d" % cursor, int(buffer), size)


class ArchivePrinter(Printer):
    """PZSerialization::Archive: size, read position and the bytes."""

    @readable
    def to_string(self):
        first = self.value["begin_"]
        size = int(self.value["end_"]) - int(first)
        if size < 0:
            raise ValueError("size below 0")
        position = unsigned(self.value["readPosition_"], 32)
        return bytes_text("read up to %d" % position, int(first), size)


# Locks and events.


class SyncPrinter(Printer):
    """PZSync: kind, name, owner and how often the owner has locked it."""

    @readable
    def to_string(self):
        if int(self.value["handle_"]) == 0:
            return "not created"
        kind = "named lock" if int(self.value["type_"]) == 0 else "lock"
        name = quoted_array(self.value["name_"])
        head = kind if name == '""' else "%s %s" % (kind, name)
        # pthread_t is a number; an unsigned one, whatever gdb makes of it.
        owner = unsigned(self.value["owner_"]["_M_i"], 64)
        if owner == 0:
            return head + ", not held here" if kind == "named lock" else head + ", free"
        times = unsigned(self.value["nest_"], 32) + 1
        nested = "" if times == 1 else ", %d times" % times
        return "%s, held by %s%s" % (head, thread_text(owner), nested)


class EventPrinter(Printer):
    """PZEvent: the pending signals, where they can be counted, and the descriptors."""

    @readable
    def to_string(self):
        read_fd, write_fd = int(self.value["readFd_"]), int(self.value["writeFd_"])
        if read_fd == write_fd or -1 in (read_fd, write_fd):
            return "not created"
        pipe = "pipe %d to %d" % (write_fd, read_fd)
        signals = self.pending(read_fd)
        return pipe if signals is None else "%s, %s" % (count_of(signals, "signal"), pipe)

    @staticmethod
    def pending(read_fd):
        """The bytes in the pipe; None for a core file, another machine and what is no pipe."""
        path = "/proc/%d/fd/%d" % (gdb.selected_inferior().pid, read_fd)
        try:
            if not is_live_here() or not stat.S_ISFIFO(os.stat(path).st_mode):
                return None
            # A second reader, for this moment: the program stands still.
            fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
            try:
                answer = fcntl.ioctl(fd, termios.FIONREAD, struct.pack("i", 0))
                return struct.unpack("i", answer)[0]
            finally:
                os.close(fd)
        except OSError:
            return None


# Message boxes.


class MsgBoxPrinter(Printer):
    """PZLMsgBox: what is pending, in the order of service, the receivers and the locks."""

    @readable
    def to_string(self):
        messages = sum(next(elements_of_queue(queue)) for queue in self.queues())
        events = next(elements_of_queue(self.value["events_"]))
        worker = int(self.value["workerId_"])
        state = "worker %d" % worker if worker != 0 else "not served yet"
        return "%s, %s, %s" % (state, count_of(messages, "message"), count_of(events, "event"))

    @readable_children
    def children(self):
        yield "message lock", self.value["msgSync_"]
        yield "dispatcher lock", self.value["dispatcherSync_"]
        for index, message in enumerate(self.messages()):
            yield "message %d" % index, self.message_text(message)
        events = elements_of_queue(self.value["events_"])
        next(events)
        for index, event in enumerate(events):
            yield "event %d" % index, "0x%x for %s" % (unsigned(event["bits"], 32),
                                                       self.receiver(event["id"]))
        for index, dispatcher in enumerate(keys_of_set(self.value["dispatchers_"])):
            yield "dispatcher %d" % index, self.receiver(dispatcher)

    def queues(self):
        """What the loop has fetched, and what was posted since; none in a box without memory."""
        kept = held_pointer(self.value["kept_"])
        if int(kept) == 0:
            return []
        hand_over = kept.dereference()["handOver"]
        return [hand_over["own_"], hand_over["inbox_"]]

    def messages(self):
        """In the order of service: of one level those that were fetched come first."""
        messages = []
        for queue in self.queues():
            elements = elements_of_queue(queue)
            next(elements)
            messages.extend(itertools.islice(elements, MOST_ELEMENTS))
        return sorted(messages, key=lambda message: unsigned(message["priority"], 32))

    def message_text(self, message):
        priority = unsigned(message["Priority"], 32)
        urgency = "emergency" if priority == 0 else "priority %d" % priority
        head = "id %d, %s, for %s" % (unsigned(message["MsgID"], 32), urgency,
                                      self.receiver(message["SID"]))
        if int(message["Buff"]) == 0:
            return head
        size = unsigned(message["BuffSize"], 32)
        return "%s, %s: %s" % (head, count_of(size, "byte"), self.payload(message, size))

    @staticmethod
    @readable
    def payload(message, size):
        return hex_dump(int(message["Buff"]), size)

    @staticmethod
    def receiver(id_):
        """The class of a dispatcher, whose address is its identifier."""
        try:
            return dynamic_name(id_.cast(gdb.lookup_type("PZIDispatcher").pointer()))
        except UNREADABLE:
            return "0x%x" % unsigned(id_, 64)


# Timers and threads.


class TimerThreadPrinter(Printer):
    """PZLTimerSubMng: its thread and the active timers, the next one first."""

    @readable
    def to_string(self):
        name = quoted_array(self.value["thread_"]["name_"])
        count = unsigned(self.value["timers_"]["_M_t"]["_M_impl"]["_M_node_count"], 64)
        return "%s, %s" % ("not started" if name == '""' else name, count_of(count, "timer"))

    @readable_children
    def children(self):
        last = unsigned(self.value["lastCheck_"], 32)
        timers = list(items_of_map(self.value["timers_"]))
        timers.sort(key=lambda item: unsigned(int(item[1]["expiry"]) - last, 32))
        for timer, info in timers:
            yield self.name_of(timer), self.timer_text(info)

    @staticmethod
    def name_of(timer):
        try:
            return dynamic_name(timer)
        except UNREADABLE:
            return "0x%x" % int(timer)

    @staticmethod
    def timer_text(info):
        expiry = unsigned(info["expiry"], 32)
        text = "interval %d ms, due at tick %d" % (unsigned(info["interval"], 32), expiry)
        if not is_live_here():
            return text
        now = int(time.clock_gettime(time.CLOCK_MONOTONIC) * 1000)
        left = unsigned(expiry - now, 32)
        if left < 1 << 31:
            return "%s, in %d ms" % (text, left)
        return "%s, %d ms ago" % (text, (1 << 32) - left)


class TimerMngPrinter(Printer):
    """PZLTimerMng: the timer threads by the priorities of their callers."""

    @readable
    def to_string(self):
        return count_of(unsigned(self.value["count_"], 32), "band")

    @readable_children
    def children(self):
        for index in range(unsigned(self.value["count_"], 32)):
            band = self.value["subs_"][index]
            yield ("priorities %d to %d" % (int(band["lo"]), int(band["hi"])),
                   band["sub"].dereference())


class Inspection:
    """The library's own table of what its threads do just now."""

    def __init__(self):
        self.table = gdb.parse_and_eval("pz_inspection")

    @staticmethod
    def number(field):
        return unsigned(field["_M_i"], 32)

    @staticmethod
    def address(field):
        return field["pointer"]["_M_b"]["_M_p"]

    def records(self, name, class_):
        """The records of a list; ends at one that leads nowhere."""
        type_ = gdb.lookup_type("ST_INSPECTED_%s<PZInspectionLive>" % class_).pointer()
        record = self.address(self.table[name])
        for _ in range(MOST_ELEMENTS):
            if int(record) == 0:
                return
            record = record.cast(type_)
            yield record.dereference()
            record = self.address(record["next"])

    def entries(self, name, class_):
        """The entries of an array."""
        type_ = gdb.lookup_type("ST_INSPECTED_%s<PZInspectionLive>" % class_).pointer()
        first = self.address(self.table[name]).cast(type_)
        count = int(self.table[name[:-1] + "Count"])
        return (first[i] for i in range(min(count, MOST_ELEMENTS)))

    def activities(self):
        """Kernel id, what it does, and since when, or None while it has nothing to do."""
        for wait in self.entries("waits", "WAIT"):
            if int(self.address(wait["lock"])) != 0:
                yield self.number(wait["tid"]), self.lock_text(wait), self.number(wait["sinceMs"])
        for box in self.records("boxes", "BOX"):
            yield self.activity(box, "dispatcher", self.message_text)
        for band in self.records("bands", "BAND"):
            yield self.activity(band, "timer", self.timer_text)
        for queue in self.entries("queues", "QUEUE"):
            if int(self.address(queue["queue"])) != 0:
                isRunning = self.number(queue["isNotifying"]) != 0
                yield (self.number(queue["tid"]), "observers of a queue",
                       self.number(queue["beganMs"]) if isRunning else None)

    def activity(self, record, running, text):
        if int(self.address(record[running])) == 0:
            return self.number(record["tid"]), "", None
        return self.number(record["tid"]), text(record), self.number(record["beganMs"])

    def lock_text(self, wait):
        lock = self.address(wait["lock"]).cast(gdb.lookup_type("PZSync").pointer())
        return "%s, at 0x%x" % (SyncPrinter(lock.dereference()).to_string(), int(lock))

    def message_text(self, box):
        kind = "event 0x%x" if int(box["isEvent"]["_M_i"]) else "message %d"
        return (kind + " for %s") % (self.number(box["messageId"]), self.object_text(
            self.address(box["dispatcher"]), "PZIDispatcher"))

    def timer_text(self, band):
        return "timer %s" % self.object_text(self.address(band["timer"]), "PZLTimerBase")

    @staticmethod
    def object_text(address, class_):
        try:
            return dynamic_name(address.cast(gdb.lookup_type(class_).pointer()))
        except UNREADABLE:
            return "0x%x" % int(address)


def states_of_threads():
    """What each thread does by its kernel id: a text, and for how long; empty without the table."""
    try:
        activities = list(Inspection().activities())
    except UNREADABLE:
        return {}
    # Of a core file the newest stamp is known to be past.
    stamps = [since for _, _, since in activities if since is not None]
    is_live = is_live_here() and stopped_at is not None
    now = stopped_at if is_live else max(stamps, default=0)
    states = {}
    for tid, text, since in activities:
        duration = None if since is None else unsigned(now - since, 32)
        if duration is not None and duration >= 1 << 31:
            duration = 0  # begun after that time
        states.setdefault(tid, []).append((text, duration))
    return states


class ThreadMngPrinter(Printer):
    """PZThreadMng: the registered threads in the order of gdb's numbers, and what they do."""

    @readable
    def to_string(self):
        count = unsigned(self.value["threads_"]["_M_t"]["_M_impl"]["_M_node_count"], 64)
        return count_of(count, "thread")

    @readable_children
    def children(self):
        numbers = thread_numbers()
        threads = [(unsigned(handle, 64), info)
                   for handle, info in items_of_map(self.value["threads_"])]
        threads.sort(key=lambda item: (numbers.get(item[0], MOST_ELEMENTS), item[0]))
        states = states_of_threads()
        for handle, info in threads:
            yield thread_text(handle), self.thread_info(info, states.get(int(info["tid"]), []))

    def thread_info(self, info, activities):
        watch = unsigned(info["watchTime"], 32)
        return "%s, priority %d, %s, watch time %d ms" % (
            quoted_array(info["name"]), int(info["priority"]),
            self.state(info, activities, watch), watch)

    @staticmethod
    def state(info, activities, watch):
        """Stuck is what takes longer than the watch time; a lock is waited for inside the rest."""
        at_work = [(text, duration) for text, duration in activities if duration is not None]
        if not at_work:
            status = int(info["status"])
            states = {0: "waiting", 1: "waiting" if activities else "running"}
            return states.get(status, "status %d" % status)
        is_stuck = watch != 0 and any(duration > watch for _, duration in at_work)
        text = " in ".join("%s (%d ms)" % activity for activity in at_work)
        if "lock" in at_work[0][0].split(" ")[:2]:
            return ("stuck, waits for " if is_stuck else "waits for ") + text
        return ("stuck in " if is_stuck else "running ") + text


# Registration.


PRINTERS = {
    "PZString": StringPrinter,
    "PZBinary": BinaryPrinter,
    "PZSerialization::Archive": ArchivePrinter,
    "PZSync": SyncPrinter,
    "PZEvent": EventPrinter,
    "PZLMsgBox": MsgBoxPrinter,
    "PZLTimerSubMng": TimerThreadPrinter,
    "PZLTimerMng": TimerMngPrinter,
    "PZThreadMng": ThreadMngPrinter,
}


class PrinterOfClass(gdb.printing.PrettyPrinter):
    """Chooses the printer; `disable pretty-printer global pzframework` shows the raw fields."""

    def __init__(self):
        super().__init__("pzframework", [gdb.printing.SubPrettyPrinter(name) for name in PRINTERS])

    def __call__(self, value):
        type_ = gdb.types.get_basic_type(value.type)
        if type_.code != gdb.TYPE_CODE_STRUCT or type_.name not in PRINTERS:
            return None
        if any(sub.name == type_.name and not sub.enabled for sub in self.subprinters):
            return None
        if value.type.strip_typedefs().code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
            value = value.referenced_value()
        return PRINTERS[type_.name](value)


def missing_symbols():
    """Why the framework's objects are not known here, and what helps; None when they are."""
    objfiles = gdb.objfiles()
    if any(objfile.lookup_global_symbol("pz_FwInitialize") for objfile in objfiles):
        return None
    for objfile in objfiles:
        library = re.search(r"/libpzframework\.so(?:\.(\d+))?[^/]*$", objfile.filename or "")
        if library:
            return ("%s has no debug symbols: install the package libpzframework%s-dbgsym, "
                    "or build the library with -g" % (objfile.filename, library.group(1) or "1"))
    return "the framework is not loaded"


class FrameworkCommand(gdb.Command):
    """A command that prints something of the whole process."""

    def __init__(self, name):
        super().__init__(name, gdb.COMMAND_DATA)

    def invoke(self, argument, from_tty):
        # The program mostly stands in the C library: names are those of C++ all the same.
        language = gdb.parameter("language")
        gdb.execute("set language c++", to_string=True)
        try:
            print(missing_symbols() or self.listing())
        except UNREADABLE as error:
            print("not readable: %s" % error)
        finally:
            gdb.execute("set language " + language, to_string=True)


def instance_of(class_):
    """The one object of a class; None without one."""
    instance = held_pointer(gdb.parse_and_eval("'PZSingleton<%s>::pInstance_'" % class_))
    return instance.dereference() if int(instance) != 0 else None


class SingletonCommand(FrameworkCommand):
    """Prints the one object of a class, one line for each element."""

    def __init__(self, name, class_, documentation):
        self.__doc__ = documentation
        self.class_ = class_
        super().__init__(name)

    def listing(self):
        instance = instance_of(self.class_)
        if instance is None:
            return "there is no %s" % self.class_
        return instance.format_string(pretty_structs=True)


def offset_of(type_, name):
    return next(field.bitpos // 8 for field in type_.fields() if field.name == name)


class BoxesCommand(FrameworkCommand):
    """List the message boxes of the program, with what waits in them."""

    def __init__(self):
        super().__init__("pz-boxes")

    def listing(self):
        rows = ["%s = %s" % (name, box.format_string(pretty_structs=True))
                for name, box in self.boxes()]
        count = "1 box" if len(rows) == 1 else "%d boxes" % len(rows)
        return count + (" = {\n  %s\n}" % ",\n".join(rows).replace("\n", "\n  ") if rows else "")

    def boxes(self):
        """In the order of gdb's numbers of the threads that serve them."""
        inspection = Inspection()
        threads = {inspection.number(thread["tid"]): thread
                   for thread in inspection.records("threads", "THREAD")}
        numbers = thread_numbers()
        boxes = []
        for record in inspection.records("boxes", "BOX"):
            thread = threads.get(inspection.number(record["tid"]))
            boxes.append((self.name_of(thread, numbers), self.box_of(record)))
        boxes.sort(key=lambda row: row[0])
        for (_, name), box in boxes:
            yield name, box

    @staticmethod
    def name_of(thread, numbers):
        """For the order, and to be shown."""
        if thread is None:
            return MOST_ELEMENTS, "without a thread"
        handle = int(Inspection.address(thread["handle"]))
        name = Inspection.address(thread["name"]).cast(gdb.lookup_type("char").pointer())
        label = quoted_bytes(memory(int(name), 256).split(b"\0")[0], "XCP_UTF8")
        return numbers.get(handle, MOST_ELEMENTS - 1), "%s %s" % (thread_text(handle), label)

    @staticmethod
    def box_of(record):
        """The box that keeps the record: by way of its lock, which it refers to."""
        kept_type = gdb.lookup_type("PZLMsgBox::Kept")
        shown = next(field for field in kept_type.fields() if field.name == "shown")
        address = int(record.address) - shown.bitpos // 8 - offset_of(shown.type, "box_")
        kept = gdb.Value(address).cast(kept_type.pointer()).dereference()
        lock = int(kept["handOver"]["sync_"].referenced_value().address)
        type_ = gdb.lookup_type("PZLMsgBox")
        box = gdb.Value(lock - offset_of(type_, "msgSync_")).cast(type_.pointer())
        return box.dereference()


gdb.events.stop.connect(note_stop)
gdb.printing.register_pretty_printer(gdb.current_objfile(), PrinterOfClass(), replace=True)
SingletonCommand("pz-threads", "PZThreadMng", "List the registered threads of the program.")
SingletonCommand("pz-timers", "PZLTimerMng", "List the active timers by their threads.")
BoxesCommand()
