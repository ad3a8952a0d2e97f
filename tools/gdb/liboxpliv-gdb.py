"""GDB's knowledge of liboxpliv: the commands "oxpliv ..." and printers for the library's records.

Everything is read from memory by the library's debug information, and nothing is called in the program, so that it
works on a stopped process and on a core file alike. GDB loads this file by itself when it lies where GDB looks for the
scripts of the shared library; "source liboxpliv-gdb.py" does the same by hand.
"""

import collections
import functools
import itertools
import re
import struct
import textwrap

import gdb
import gdb.printing

PAGE_SHIFT = 21
NO_PAGE = -1
NO_ZONE = 255


# ---- Values: from what the debug information tells to plain numbers


def why_not_found():
    """What the user can do when the library's variables are unknown."""
    loaded = [objfile.filename for objfile in gdb.objfiles() if "liboxpliv.so" in (objfile.filename or "")]
    if loaded:
        return "%s has no debug information: install that of the library, or build it with -g" % loaded[0]
    return "liboxpliv is not loaded, or has no debug information; a shared library is loaded once the program runs"


def static(name):
    """A static member, by its linkage name: that is found whichever compiler and optimizations made the library."""
    parts = "".join("%d%s" % (len(part), part) for part in name.split("::"))
    try:
        return gdb.parse_and_eval("_ZN6oxpliv%sE" % parts)
    except gdb.error:
        raise gdb.GdbError(why_not_found())


def record_type(name):
    return gdb.lookup_type("oxpliv::" + name)


def members(record):
    """The fields of a record that lie in it, its base class among them, from the lowest on."""
    fields = [field for field in record.strip_typedefs().fields() if hasattr(field, "bitpos")]
    return sorted(fields, key=lambda field: field.bitpos)


def plain(value):
    """The number or pointer inside a Relaxed, a std::atomic or a ByteLock."""
    while value.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
        value = value[members(value.type)[0]]
    return value


def number(value):
    return int(plain(value))


class Record:
    """An object of the library: `record.used_pages` is the number in its member `_used_pages`."""

    def __init__(self, value):
        self.value = value

    def __getattr__(self, name):
        return number(self.value["_" + name])


def states_of(enumeration):
    """The states of a record by their names in plain words: NotFunded -> not funded."""
    states = {}
    for field in record_type(enumeration).fields():
        states[re.sub("(?<!^)([A-Z])", r" \1", field.name.rpartition("::")[2]).lower()] = field.enumval
    return states


def holder(mutex):
    """Who holds a mutex, as a remark: the number is the one that "info threads" shows as LWP."""
    owner = int(mutex["__data"]["__owner"])
    return ", mutex held by LWP %d" % owner if owner else ""


class Table:
    """Records that lie one behind the other.

    They are read many at a time and taken apart here: a value of the debugger's takes as long as hundreds of them.
    """

    CHUNK = 1 << 15

    def __init__(self, base, top, enumeration):
        record = base.type.target()
        self.states = states_of(enumeration)
        self.base = int(base)
        self.bytes = record.sizeof
        self.count = (int(top) - self.base) // record.sizeof
        layout, names, end = "<", [], 0
        for field in members(record):
            start = field.bitpos // 8
            layout += "%dx%s" % (start - end, self.letter(field.type))
            names.append(field.name.lstrip("_"))
            end = start + field.type.sizeof
        self.layout = struct.Struct(layout + "%dx" % (record.sizeof - end))
        self.tuple = collections.namedtuple("Fields", names)

    @staticmethod
    def letter(field):
        """The letter for a number in struct's language."""
        while field.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
            field = members(field)[0].type
        letter = {1: "b", 2: "h", 4: "i", 8: "q"}[field.sizeof]
        return letter if int(gdb.Value(-1).cast(field)) < 0 else letter.upper()

    def memory(self, first, count):
        return gdb.selected_inferior().read_memory(self.base + first * self.bytes, count * self.bytes)

    def read(self, first, count):
        return map(self.tuple._make, self.layout.iter_unpack(self.memory(first, count)))

    def __getitem__(self, index):
        return next(self.read(index, 1))

    def scan(self, first, end):
        """(number, record) for each record; stretches that nobody ever wrote to are passed over."""
        untouched = bytes(self.CHUNK * self.bytes)
        for start in range(first, end, self.CHUNK):
            memory = bytes(self.memory(start, min(self.CHUNK, end - start)))
            if memory != untouched[:len(memory)]:
                yield from zip(itertools.count(start), map(self.tuple._make, self.layout.iter_unpack(memory)))

    def index(self, address):
        """The number of the record at an address, or None for an address that is not in the table."""
        index = (address - self.base) // self.bytes
        return index if 0 <= index < self.count else None

    def take_apart(self, value):
        """A record that the debugger holds, in the table or not: its number, or None, and its fields."""
        index = None if value.address is None else self.index(int(value.address))
        return index, self.tuple._make(number(value[field]) for field in members(value.type))

    def state(self, record):
        """The state of a record in words."""
        for name, state in self.states.items():
            if state == record.state:
                return name
        return "state %d, which does not exist" % record.state


def ranges(tree):
    """The (start, end) of the blocks of a BlockTree in list order; a chain is a tree without anything in front."""
    count = number(tree["_count"])
    seen, above, node = 0, [], tree["_root"]
    while node or above:
        while node:
            above.append(node)
            if seen + len(above) > count:
                raise gdb.GdbError("this tree is broken: it has more blocks than its count, %d" % count)
            node = node["child"][0]
        node = above.pop()
        seen += 1
        yield int(node["block"]["_start"]), int(node["block"]["_end"])
        node = node["child"][1]


# ---- Text


def plural(count, thing):
    ending = "" if count == 1 else "es" if thing.endswith("sh") else "s"
    return "%d %s%s" % (count, thing, ending)


def span(start, end):
    """Pages start .. end - 1."""
    return "%d" % start if end - start == 1 else "%d-%d" % (start, end - 1)


def runs(numbers):
    """Consecutive numbers put together: (start, end)."""
    start = end = None
    for page in numbers:
        if page != end:
            if end is not None:
                yield start, end
            start = page
        end = page + 1
    if end is not None:
        yield start, end


def write_spans(title, spans, most=None):
    """A title with the spans behind it, over as many lines as it takes."""
    spans = list(spans)
    text = ", ".join(span(*one) for one in spans[:most]) or "none"
    if most is not None and len(spans) > most:
        text += ", and %d more" % (len(spans) - most)
    write(textwrap.fill(title + " " + text, 118, subsequent_indent="      "))


def write(text):
    gdb.write(text + "\n")


def known(page):
    """The number of a record, which nothing tells for a copy of one."""
    return "?" if page is None else "%d" % page


def megabytes(pages):
    return "%d MiB" % (pages * 2)


def protection(bits):
    return "".join(letter if bits & bit else "-" for letter, bit in (("r", 1), ("w", 2), ("x", 4)))


# ---- The library's objects


def check_initialized():
    if not static("PMEM::_initialized"):
        raise gdb.GdbError("liboxpliv is not initialized: ox_initialize_pliv has not succeeded in this process")


def pointers(array, count):
    """(index, object) for the pointers in an array that are not null."""
    for index in range(count):
        pointer = plain(array[index])
        if pointer:
            yield index, pointer.dereference()


def accounts():
    return [(index, Record(value)) for index, value in pointers(static("PMEM::_accounts"), 8)]


class Zone(Record):
    def __init__(self, value):
        super().__init__(value)
        kind = "PMEM_AOFFList" if self.supports_blocks else "PMEM_PageQueue"
        self.list = Record(value["_allocator"].cast(record_type(kind).pointer()).dereference())

    def kind(self):
        return "runs of pages" if self.supports_blocks else "single pages"

    def allocated(self):
        return self.watermark_pages - self.list.free_pages - self.list.defunded_pages

    def free_spans(self, physical):
        """What is on the free list: ranges of numbers, or the queue in its own order."""
        if self.supports_blocks:
            return ranges(self.list.value["_free_list"]["_free_list"])
        return runs(physical.linked(self.list.head))

    def defunded_spans(self):
        return ranges(self.list.value["_defunded_list"]["_free_list"])

    def locks(self):
        return holder(self.list.value["_free_list_mutex"]) + holder(self.list.value["_defunded_list_mutex"])


def zones():
    count = number(static("PMEM_PageManager::_num_zones"))
    return [(index, Zone(value)) for index, value in pointers(static("PMEM_PageManager::_zones"), count)]


class PhysicalPages(Table):
    """The records of the physical pages."""

    def __init__(self):
        super().__init__(static("PMEM_PageInfo::_page_info_base"), static("PMEM_PageInfo::_page_info_top"),
                         "PMEM_PageInfo::State")
        self.zone_of_table_page = static("PMEM_PageInfo::_zone_of_table_page")
        self.table_pages = self.zone_of_table_page.type.range()[1] + 1
        self.pages_of_table_page = int(static("PMEM_PageInfo::kTablePage"))

    def zone_of(self, page, record):
        """A page that was never touched is told its zone by the number that it shares with its neighbours."""
        plus_one = record.zone_id_plus_one
        if plus_one == 0 and page is not None and page // self.pages_of_table_page < self.table_pages:
            of_all = number(self.zone_of_table_page[page // self.pages_of_table_page])
            plus_one = of_all if of_all <= NO_ZONE else 0
        return (plus_one - 1) % 256

    def linked(self, address):
        """The pages of a queue, from the record at an address on."""
        for _ in range(self.count):
            page = self.index(address)
            if page is None:
                break
            yield page
            address = self[page].next
        if address:
            raise gdb.GdbError("this queue is broken: a link leads to %#x" % address)

    def describe(self, page, record):
        zone = self.zone_of(page, record)
        parts = [self.state(record), "in no zone" if zone == NO_ZONE else "zone %d" % zone]
        if record.state == self.states["allocated"]:
            parts.append("account %d" % record.acct)
        parts.append(plural(record.ref_count, "mapping"))
        parts.append("%d active" % record.active_ref_count)
        parts.append("%d populated" % record.populated_ref_count)
        if record.lock & 1:
            parts.append("locked")
        return "physical page %s: %s" % (known(page), ", ".join(parts))


Alias = collections.namedtuple("Alias", "index base protection multi_page populate")
Block = collections.namedtuple("Block", "first size state physical")


class Space(Record):
    def __init__(self, value):
        super().__init__(value)
        self.manager = Record(value["_page_manager"])
        self.pages = self.size >> PAGE_SHIFT
        self.premapped = self.manager.last_premapped_page + 1
        table = value["_page_manager"]["_pageinfo_manager"]
        self.records = Table(table["_pageinfo_base"], table["_pageinfo_top"], "VMEM_PageInfo::States")
        self.aliases = [self.alias(index) for index in range(self.alias_count)]

    def alias(self, index):
        alias = self.value["_aliases"][index]
        return Alias(index, int(alias["base"]), int(alias["prot"]), bool(alias["maps_multi_page_blocks"]),
                     bool(alias["populate"]))

    def alias_of(self, address):
        for alias in self.aliases:
            if alias.base <= address < alias.base + self.size:
                return alias
        return None

    def free_spans(self):
        return ranges(self.value["_page_manager"]["_allocator"]["_free_list"])

    def zones(self):
        allowed = self.value["_page_manager"]["_allowed_zones"]
        return [number(allowed[index]) for index in range(self.manager.zone_count)]

    def touched(self):
        """Behind the last page that was ever handed out, or is just being."""
        free = list(self.free_spans())
        behind = free[-1][0] if free and free[-1][1] == self.pages else self.pages
        return max(self.manager.high_watermark_page + 1, behind)

    def block(self, page):
        """The block that a page belongs to, with its physical pages (None where there is none), or None."""
        record = self.records[page]
        if record.state == self.records.states["free"]:
            return None
        first = page + min(record.block_size, 0)
        block = list(self.records.read(first, min(self.records[first].block_size, self.pages - first)))
        physical = []
        for one in block:
            inside_run = one.pmem_page == NO_PAGE and physical and physical[-1] is not None and one.pmem_map_size == -1
            physical.append(physical[-1] + 1 if inside_run else None if one.pmem_page == NO_PAGE else one.pmem_page)
        return Block(first, len(block), self.records.state(record), physical)

    def uses_of(self, page):
        """(virtual page, whether it is in use or only still mapped from before) for each that leads to the page."""
        free = self.records.states["free"]
        for virtual, record in self.records.scan(self.premapped, self.touched()):
            if record.state == free:
                if record.prev_pmem_page_plus_one == page + 1:
                    yield virtual, False
            elif record.pmem_map_size >= 1 and 0 <= page - record.pmem_page < record.pmem_map_size:
                yield virtual + page - record.pmem_page, True

    def cache(self):
        return Record(self.value["_cache"].dereference()) if self.value["_cache"] else None

    def cached_blocks(self):
        """(pages, first virtual page) of the blocks in the cache, in the order of their sizes, the newest first."""
        cache = self.cache()
        for size in range(1, cache.largest_bucket + 1 if cache else 1):
            bucket = cache.value["_buckets"][size]
            if bucket:
                start, end = (int(bucket["_M_impl"][name]) for name in ("_M_start", "_M_finish"))
                offsets = struct.iter_unpack("<q", gdb.selected_inferior().read_memory(start, end - start))
                for offset, in reversed(list(offsets)):
                    yield size, offset >> PAGE_SHIFT


def spaces():
    count = number(static("VMEM::_space_manager_count"))
    return [(index, Space(value)) for index, value in pointers(static("VMEM::_space_manager"), count)]


class FixedAddresses(Table):
    """The records of the pages of the address space, by address >> 21."""

    def __init__(self):
        manager = "VMEM_FixedAddressPageInfoManager::_vmem_fixed_address_pageinfo_"
        super().__init__(static(manager + "base"), static(manager + "top"), "VMEM_FixedAddressPageInfo::States")

    def is_backed(self, record):
        return record.state in (self.states["allocating"], self.states["allocated"])

    def describe(self, page, record):
        address = "address ?" if page is None else "address %#x" % (page << PAGE_SHIFT)
        backing = ", physical page %d, %s" % (record.pmem_page_offset, protection(record.prot))
        return "fixed %s: %s%s" % (address, self.state(record), backing if self.is_backed(record) else "")


class Mappings:
    """What the system says that is mapped, which the records may be compared with."""

    LINE = re.compile(r"^\s*0x(\w+)\s+0x(\w+)\s+0x\w+\s+0x(\w+)\s+(?:([rwxps-]{4})\s+)?(/.*)$")

    def __init__(self):
        try:
            lines = gdb.execute("info proc mappings", to_string=True).splitlines()
        except gdb.error:
            lines = []
        found = filter(None, map(self.LINE.match, lines))
        self.files = [([int(text, 16) for text in match.groups()[:3]], match[4], match[5]) for match in found]

    def describe(self, address, page):
        """What lies at an address where a physical page ought to be mapped."""
        if not self.files:
            return ""
        for (start, end, offset), permissions, file in self.files:
            if start <= address < end:
                mapped = (address - start + offset) >> PAGE_SHIFT
                if mapped != page:
                    return "page %d of %s is mapped" % (mapped, file)
                return "mapped %s" % (permissions or "")
        return "not mapped"


# ---- The commands

COMMANDS = []


def command(usage):
    """Makes "oxpliv <the function's name>" of a function that takes the arguments as a list of texts."""

    def register(function):
        class Subcommand(gdb.Command):
            __doc__ = "%s\nUsage: %s" % (function.__doc__, usage)

            def invoke(self, argument, from_tty):
                arguments = gdb.string_to_argv(argument)
                if arguments and len(usage.split()) == 2:
                    raise gdb.GdbError("%s takes no argument" % usage)
                check_initialized()
                try:
                    function(arguments)
                except gdb.error as error:
                    raise gdb.GdbError(str(error))

        COMMANDS.append((usage, function.__doc__.splitlines()[0]))
        Subcommand(" ".join(usage.split()[:2]), gdb.COMMAND_DATA)
        return function

    return register


def integer(text):
    """A number as the user wrote it: any expression that the debugger understands."""
    return int(gdb.parse_and_eval(text))


def one_argument(arguments, what):
    if len(arguments) != 1:
        raise gdb.GdbError("which %s?" % what)
    return integer(arguments[0])


def chosen(things, arguments, what):
    """All of the things, or the one that is named by its id."""
    if not arguments:
        return things
    wanted = one_argument(arguments, what)
    found = [(index, thing) for index, thing in things if index == wanted]
    if not found:
        known = ", ".join(str(index) for index, _ in things) or "none"
        raise gdb.GdbError("there is no %s %d; there are: %s" % (what, wanted, known))
    return found


class Oxpliv(gdb.Command):
    """Tell about the memory that liboxpliv manages: a summary and the list of the commands."""

    def __init__(self):
        super().__init__("oxpliv", gdb.COMMAND_DATA, prefix=True)

    def invoke(self, argument, from_tty):
        if argument:
            raise gdb.GdbError('"oxpliv %s" is not a command; "oxpliv" lists them' % argument)
        check_initialized()
        write_summary()
        write("\nCommands:")
        for usage, what in COMMANDS:
            write("  %-32s %s" % (usage, what))


Oxpliv()


def write_summary():
    physical = PhysicalPages()
    states = collections.Counter(record.state for _, record in physical.scan(0, physical.count))
    explicit = static("PMEM_BackingStorage::_using_explicit_huge_pages")
    transparent = static("PMEM_BackingStorage::_using_transparent_huge_pages")
    kind = "explicit huge pages" if explicit else "transparent huge pages" if transparent else "small pages"
    with_memory = {name: states[physical.states[name]] for name in ("allocated", "free")}
    write("backing file: descriptor %d, %s long, %s" % (
        static("PMEM_BackingStorage::_file_descriptor"),
        megabytes(number(static("PMEM_BackingStorage::_file_size")) >> PAGE_SHIFT), kind))
    write("physical pages of 2 MiB: %d allocated, %d free, %d without memory" % (
        with_memory["allocated"], with_memory["free"], physical.count - sum(with_memory.values())))
    write(", ".join(plural(len(things), kind) for things, kind in (
        (accounts(), "account"), (zones(), "zone"), (spaces(), "space"))))
    write("mapped: %s, populated: %s, internal usage: %d KiB" % (
        megabytes(number(static("PMEM::_total_ref_count"))), megabytes(number(static("PMEM::_populated_page_count"))),
        number(static("InternalMemoryUsage::_internal_usage")) >> 10))
    write("waiting to be pretouched: %s" % plural(
        number(static("PMEM_PageAllocator::_needs_pretouch_list_size")), "page"))


@command("oxpliv accounts")
def write_accounts(_):
    """The funding accounts, in pages."""
    write("account     fund     used      low     high  balance   funded     peak  maximum  credits first")
    for index, account in accounts():
        columns = [account.fund_pages, account.used_pages, account.used_min_pages, account.used_max_pages,
                   account.balance_pages, account.funded_pages, account.peak_fund_pages, account.max_pages]
        write("%7d%s  %s%s" % (index, "".join("%9d" % column for column in columns), credit_list(account),
                               holder(account.value["_mutex"])))
    cached = sum(space.cache().cached_pages for _, space in spaces() if space.cache())
    write("used counts pages in the caches of spaces too: %d" % cached)


def credit_list(account):
    listed = account.accounts_to_credit.to_bytes(8, "little").split(b"\xff")[0]
    return ", ".join(str(index) for index in listed) or "none"


@command("oxpliv zones")
def write_zones(_):
    """The physical zones, in pages."""
    write("zone  pages            hands out     allocated     free      low     high  defunded  watermark"
          "  initial pages")
    for index, zone in zones():
        start, free_list = zone.start_page, zone.list
        columns = [zone.allocated(), free_list.free_pages, free_list.free_pages_low, free_list.free_pages_high]
        write("%4d  %-15s  %-13s%s%10d%11d  %d of %d funded%s" % (
            index, span(start, start + zone.max_pages), zone.kind(), "".join("%9d" % column for column in columns),
            free_list.defunded_pages, zone.watermark_pages, zone.fund_cursor - start, zone.fund_limit - start,
            zone.locks()))


@command("oxpliv page NUMBER")
def write_page(arguments):
    """A physical page: its record, and all that maps it."""
    page = existing_page(one_argument(arguments, "page"))
    physical = PhysicalPages()
    record = physical[page]
    write("%s, at %#x of the file" % (physical.describe(page, record), page << PAGE_SHIFT))
    if record.next:
        write("  linked to page %d" % physical.index(record.next))
    if record.next_pretouch_page:
        write("  waits to be pretouched")
    write_uses(page)


def existing_page(page):
    check_initialized()
    count = PhysicalPages().count
    if not 0 <= page < count:
        raise gdb.GdbError("there is no physical page %d; they are %s" % (page, span(0, count)))
    return page


def write_uses(page):
    """Every virtual page that leads to a physical page, with its addresses."""
    mappings = Mappings()
    for index, space in spaces():
        if page < space.premapped:
            write("  space %d page %d, premapped" % (index, page))
            write_aliases(space, page, page, mappings)
        for virtual, in_use in space.uses_of(page):
            how = in_block(space, virtual) if in_use else "free, and still mapped from before"
            write("  space %d page %d, %s" % (index, virtual, how))
            write_aliases(space, virtual, page, mappings)
    fixed = FixedAddresses()
    for index, record in fixed.scan(0, fixed.count):
        if record.pmem_page_offset == page and fixed.is_backed(record):
            write("  fixed address %s" % with_mapping(index << PAGE_SHIFT, page, mappings))


def write_aliases(space, virtual, page, mappings):
    for alias in space.aliases:
        address = alias.base + (virtual << PAGE_SHIFT)
        write("    alias %d  %s" % (alias.index, with_mapping(address, page, mappings)))


def with_mapping(address, page, mappings):
    return ("%#x  %s" % (address, mappings.describe(address, page))).rstrip()


def in_block(space, virtual):
    block = space.block(virtual)
    cached = ", in the cache" if (block.size, block.first) in space.cached_blocks() else ""
    if block.size == 1:
        return "a block of 1 page, %s%s" % (block.state, cached)
    return "page %d of %d in block %s, %s%s" % (
        virtual - block.first + 1, block.size, span(block.first, block.first + block.size), block.state, cached)


@command("oxpliv space [ID]")
def write_spaces(arguments):
    """The spaces, or one: aliases, zones, pages, cache."""
    for index, space in chosen(spaces(), arguments, "space"):
        write("space %d: %s, %d premapped; %s" % (
            index, plural(space.pages, "page"), space.premapped,
            "blocks are mapped at all aliases" if space.map_all_aliases else "blocks are mapped at one alias"))
        for alias in space.aliases:
            write("  alias %d  %#x-%#x  %s%s%s" % (
                alias.index, alias.base, alias.base + space.size, protection(alias.protection),
                ", blocks of several pages too" if alias.multi_page else "", ", populated" if alias.populate else ""))
        write("  takes pages from zones: %s" % (", ".join(map(str, space.zones())) or "all"))
        write_virtual_pages(space)
        if space.cache():
            write_cache(space)


def write_virtual_pages(space):
    manager = space.manager
    write("  %s%s" % (free_pages_of(manager), holder(manager.value["_mutex"])))
    write("  %s made, %d over an older one; premapped runs reused %d, single pages outside %d; %s to populate" % (
        plural(manager.map_count, "mapping"), manager.map_stomp_count, manager.premap_reuse_count,
        manager.premap_fail_count, plural(space.pages_to_populate, "page")))


def free_pages_of(manager):
    free = [end - start for start, end in ranges(manager.value["_allocator"]["_free_list"])]
    highest = manager.high_watermark_page
    return "%s free in %s, highest page handed out so far: %s" % (
        plural(sum(free), "page"), plural(len(free), "range"), "none" if highest < 0 else highest)


def write_cache(space):
    cache = space.cache()
    write("  cache of account %d, blocks of up to %s: %s, low %d, high %d%s" % (
        cache.account, plural(cache.max_bucket_pages, "page"), plural(cache.cached_pages, "page"),
        cache.cached_pages_min, cache.cached_pages_max, holder(cache.value["_mutex"])))
    write("    %s, %d missed; %s in part, %d in full" % (
        plural(cache.lookup_hits, "hit"), cache.lookup_misses, plural(cache.partial_flushes, "flush"),
        cache.full_flushes))
    for size, blocks in itertools.groupby(space.cached_blocks(), key=lambda block: block[0]):
        spans = [(first, first + size) for _, first in blocks]
        write_spans("    %s of %s, the next one to go out first:" % (
            plural(len(spans), "block"), plural(size, "page")), spans)


@command("oxpliv block ADDRESS")
def write_block(arguments):
    """What lies at an address: block, physical pages, and where else they are mapped."""
    address = one_argument(arguments, "address") % (1 << 64)
    for index, space in spaces():
        alias = space.alias_of(address)
        if alias:
            page = (address - alias.base) >> PAGE_SHIFT
            where = "%#x: space %d page %d, at alias %d" % (address, index, page, alias.index)
            write_block_of_space(where, space, page)
            return
    fixed = FixedAddresses()
    page = address >> PAGE_SHIFT
    record = fixed[page] if 0 <= page < fixed.count else None
    if record is None or record.state == fixed.states["untracked"]:
        raise gdb.GdbError("%#x lies in no space and in no range that is tracked for fixed addresses" % address)
    write(fixed.describe(page, record))
    if fixed.is_backed(record):
        write_physical(record.pmem_page_offset)


def write_block_of_space(where, space, page):
    if page < space.premapped:
        write(where + ", premapped")
        write_physical(page)
        return
    block = space.block(page)
    if block is None:
        before = space.records[page].prev_pmem_page_plus_one - 1
        write(where + ", free" + ("" if before == NO_PAGE else ", physical page %d still mapped from before" % before))
        return
    write("%s, %s" % (where, in_block(space, page)))
    if block.size > 1:
        write_spans("physical pages of the block:", runs(one for one in block.physical if one is not None))
    if block.physical[page - block.first] is not None:
        write_physical(block.physical[page - block.first])


def write_physical(page):
    physical = PhysicalPages()
    write(physical.describe(page, physical[page]))
    write_uses(page)


@command("oxpliv free [zone ID | space ID]")
def write_free(arguments):
    """What is free: the ranges or the queue of zones, the ranges of spaces."""
    kind, wanted = (arguments[0], arguments[1:]) if arguments else (None, [])
    if kind not in (None, "zone", "space"):
        raise gdb.GdbError("free of what? zone ID or space ID")
    most = None if wanted else 16
    physical = PhysicalPages()
    for index, zone in chosen(zones(), wanted, "zone") if kind != "space" else []:
        order = "" if zone.supports_blocks else ", the next one to go out first"
        write_spans("zone %d, %s free%s:" % (index, plural(zone.list.free_pages, "page"), order),
                    zone.free_spans(physical), most)
        if zone.list.defunded_pages:
            write_spans("  defunded:", zone.defunded_spans(), most)
    for index, space in chosen(spaces(), wanted, "space") if kind != "zone" else []:
        write_spans("space %d, free:" % index, space.free_spans(), most)


@command("oxpliv map [ZONE]")
def write_map(arguments):
    """A map of the zones: one character for a physical page."""
    physical = PhysicalPages()
    cached = cached_physical_pages()
    counts = collections.Counter()
    for index, zone in chosen(zones(), arguments, "zone"):
        start, end = zone.start_page, zone.start_page + zone.max_pages
        given = zone.start_page + zone.watermark_pages
        write("zone %d" % index)
        letters = "".join(map_letters(physical, cached, zone, start, given))
        counts.update(letters)
        write_map_lines(start, letters)
        if given < end:
            write("%9d  ... to %d: not given to the zone yet" % (given, end - 1))
    for letter, meaning in MAP_LEGEND:
        if counts[letter]:
            write("  %s  %6d  %s" % (letter, counts[letter], meaning))


MAP_LEGEND = [(str(index), "allocated, paid by account %d" % index) for index in range(8)] + [
    ("c", "allocated, in the cache of a space"), ("f", "free, with memory"),
    ("n", "free, gets memory when it is first handed out"), ("d", "defunded: its memory was given back"),
    ("?", "in a state that does not belong here")]


def cached_physical_pages():
    return {page for _, space in spaces() for _, first in space.cached_blocks() for page in space.block(first).physical}


def map_letters(physical, cached, zone, start, end):
    allocated, free, not_funded = (physical.states[name] for name in ("allocated", "free", "not funded"))
    defunded = {page for first, behind in zone.defunded_spans() for page in range(first, behind)}
    for page, record in enumerate(physical.read(start, end - start), start):
        if record.state == allocated:
            yield "c" if page in cached else str(record.acct)
        elif record.state == not_funded:
            yield "d" if page in defunded else "n"
        else:
            yield "f" if record.state == free else "?"


def write_map_lines(first, letters):
    """64 pages a line; lines that look like the one above are left out, with a star in their place."""
    lines = [letters[at:at + 64] for at in range(0, len(letters), 64)]
    for index, line in enumerate(lines):
        if 0 < index < len(lines) - 1 and line == lines[index - 1]:
            if index == 1 or line != lines[index - 2]:
                write("%9s" % "*")
        else:
            write("%9d  %s" % (first + index * 64, " ".join(textwrap.wrap(line, 16))))


# ---- Printers: a line for a record


def index_of(value, things):
    """The number of an account, zone or space among its kind."""
    for index, thing in things:
        if value.address is not None and thing.value.address == value.address:
            return index
    return None


def account_line(value):
    account = Record(value)
    return "account %s: fund %d = %d used + %d balance, %d funded, at most %d, credits first: %s" % (
        known(index_of(value, accounts())), account.fund_pages, account.used_pages, account.balance_pages,
        account.funded_pages, account.max_pages, credit_list(account))


def zone_line(value):
    zone = Zone(value)
    return "zone %d: pages %s, hands out %s, %d allocated, %d free, %d defunded" % (
        zone.zone_id, span(zone.start_page, zone.start_page + zone.max_pages), zone.kind(), zone.allocated(),
        zone.list.free_pages, zone.list.defunded_pages)


def list_line(value):
    pages = Record(value)
    return "%d free (low %d, high %d), %d defunded" % (
        pages.free_pages, pages.free_pages_low, pages.free_pages_high, pages.defunded_pages)


def space_line(value):
    space = Space(value)
    return "space %s: %s, %d premapped, %s" % (
        known(index_of(value, spaces())), plural(space.pages, "page"), space.premapped,
        ", ".join("alias %d at %#x" % (alias.index, alias.base) for alias in space.aliases) or "no alias")


def cache_line(value):
    cache = Record(value)
    return "cache of account %d: %s (low %d, high %d), %s, %d missed" % (
        cache.account, plural(cache.cached_pages, "page"), cache.cached_pages_min, cache.cached_pages_max,
        plural(cache.lookup_hits, "hit"), cache.lookup_misses)


def alias_line(value):
    return "%#x %s" % (int(value["base"]), protection(int(value["prot"])))


def physical_page_line(value):
    physical = PhysicalPages()
    return physical.describe(*physical.take_apart(value))


def fixed_page_line(value):
    fixed = FixedAddresses()
    return fixed.describe(*fixed.take_apart(value))


def virtual_page_line(value):
    """A record knows its own page only; the run that it lies inside begins on a record before it."""
    for index, space in spaces():
        page, record = space.records.take_apart(value)
        if page is not None:
            return "space %d page %d: %s" % (index, page, virtual_page_state(space.records, record))
    nowhere = Table(gdb.Value(0).cast(value.type.pointer()), 0, "VMEM_PageInfo::States")
    return "page ?: " + virtual_page_state(nowhere, nowhere.take_apart(value)[1])


def virtual_page_state(table, record):
    before = record.prev_pmem_page_plus_one - 1
    parts = [table.state(record)]
    if record.state != table.states["free"]:
        parts.append("first of %s" % plural(record.block_size, "page") if record.block_size >= 1
                     else "%s behind the first" % plural(-record.block_size, "page"))
        parts.append("inside a run" if record.pmem_page == NO_PAGE else "physical %s" % span(
            record.pmem_page, record.pmem_page + max(record.pmem_map_size, 1)))
    if before != NO_PAGE:
        parts.append("physical %d mapped before" % before)
    return ", ".join(parts)


def tree_line(value):
    spans = list(ranges(value))
    text = ", ".join(span(*one) for one in spans[:16]) + (", ..." if len(spans) > 16 else "")
    return "%s%s" % (plural(len(spans), "range"), ": " + text if spans else "")


PRINTERS = {
    "PMEM_PageInfo": physical_page_line,
    "PMEM_Account": account_line,
    "PMEM_PageZone": zone_line,
    "PMEM_(PageAllocator|FreeList|PageQueue|AOFFList)": list_line,
    "VMEM_SpaceManager": space_line,
    "VMEM_SpaceManager::Alias": alias_line,
    "VMEM_PageManager": lambda value: free_pages_of(Record(value)),
    "VMEM_PageInfo": virtual_page_line,
    "VMEM_FixedAddressPageInfo": fixed_page_line,
    "VMEM_PerSizeListPageCache": cache_line,
    "AOFirstFitAllocator": lambda value: tree_line(value["_free_list"]),
    "BlockTree": tree_line,
    "BlockTree::Node": lambda value: span(int(value["block"]["_start"]), int(value["block"]["_end"])),
    "AddressBlock": lambda value: span(int(value["_start"]), int(value["_end"])),
    "ByteLock": lambda value: "locked" if number(value) & 1 else "unlocked",
    "Relaxed<.*>": plain,
}


def register_printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("liboxpliv")
    for name, line in PRINTERS.items():
        collection.add_printer(name, "^oxpliv::%s$" % name, functools.partial(LinePrinter, line))
    gdb.printing.register_pretty_printer(gdb.current_objfile(), collection, replace=True)


class LinePrinter:
    """Prints a value as the line that a function makes of it."""

    def __init__(self, line, value):
        self.line, self.value = line, value

    def to_string(self):
        return self.line(self.value)


register_printers()


# ---- Functions for expressions: print $oxpliv_space(0)._aliases[1]


class Finder(gdb.Function):
    """$oxpliv_<kind>(NUMBER): the object itself."""

    def __init__(self, kind, things):
        super().__init__("oxpliv_" + kind)
        self.kind, self.things = kind, things

    def invoke(self, index):
        check_initialized()
        return chosen(self.things(), [str(int(index))], self.kind)[0][1].value


class PageFinder(gdb.Function):
    """$oxpliv_page(NUMBER): the record of a physical page."""

    def __init__(self):
        super().__init__("oxpliv_page")

    def invoke(self, page):
        return static("PMEM_PageInfo::_page_info_base")[existing_page(int(page))]


PageFinder()
Finder("account", accounts)
Finder("zone", zones)
Finder("space", spaces)
