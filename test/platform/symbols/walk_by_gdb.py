"""The layer's stack walk against the debugger's, at random instructions of functions of every shape.

Runs inside gdb: gdb -batch -x walk_by_gdb.py PROGRAM. The program steps on by a random number of instructions; then gdb
has it walk its own stack from the registers that it has, and compares every frame's instruction and stack pointer. Only
where gdb is lost there is nothing to compare: it takes data for code, since the tables of some functions in assembler are
wrong; it overlooks the caller of a function without tables that loads its own address; it does not read the tables of
the kernel's own module.
"""
import os
import random
import struct

POINTS = int(os.environ.get("QEL_WALK_POINTS", "300"))
LONGEST_STEP = 120
REGISTERS = ("eax", "ebx", "ecx", "edx", "esi", "edi", "eip", "esp", "ebp")
MOST_FRAMES = 200


def gdbs_frames():
    """Frames that have no stack of their own are gdb's invention: inlined functions, and callers by a jump."""
    frames = []
    frame = gdb.newest_frame()
    while frame is not None:
        if frame.type() not in (gdb.INLINE_FRAME, gdb.TAILCALL_FRAME):
            stack = int(frame.read_register("esp")) & 0xFFFFFFFF
            if frame.pc() != 0:
                frames.append((frame.pc(), stack))
        frame = frame.older()
    return frames


def mappings_of_code():
    lines = [line.split() for line in open(f"/proc/{gdb.selected_inferior().pid}/maps")]
    return [[int(end, 16) for end in line[0].split("-")] for line in lines if "x" in line[1]]


def is_lost(frames, code):
    load = gdb.selected_inferior().read_memory(frames[0][0], 4).tobytes()
    loads_own_address = load[0] == 0x8B and load[1] & 0xC7 == 0x04 and load[2:] == b"\x24\xC3"
    return loads_own_address or not all(any(start <= pc < end for start, end in code) for pc, _ in frames)


def is_of_kernel(address):
    return "system-supplied" in gdb.execute(f"info symbol {address}", to_string=True)


def our_frames():
    values = [int(gdb.parse_and_eval(f"(unsigned)${name}")) for name in REGISTERS]
    memory = gdb.selected_inferior()
    memory.write_memory(address_of("g_debuggersRegisters"), struct.pack("<9I", *values))
    gdb.execute("call (void)WalkForDebugger()", to_string=True)
    *words, count = struct.unpack_from(
        f"<{2 * MOST_FRAMES + 1}I", memory.read_memory(address_of("g_debuggersPlaces"), 8 * MOST_FRAMES + 4).tobytes())
    return list(zip(words[::2], words[1::2]))[:count]


def address_of(name):
    return int(gdb.parse_and_eval(f"(unsigned)&{name}"))


def describe(frames):
    return "\n".join(f"  {pc:08x} {stack:08x} {gdb.execute(f'info symbol {pc}', to_string=True).strip()}"
                     for pc, stack in frames)


def compare_at_points(generator):
    compared, lost, different = 0, 0, []
    code = mappings_of_code()
    while compared < POINTS:
        gdb.execute(f"stepi {generator.randint(1, LONGEST_STEP)}", to_string=True)
        if not gdb.selected_inferior().pid:
            break
        theirs, ours = gdbs_frames(), our_frames()
        if is_of_kernel(theirs[0][0]):  # where a clock is read again until the kernel leaves it alone for a moment
            gdb.execute(f"tbreak *{ours[1][0]}", to_string=True)
            gdb.execute("continue", to_string=True)
            continue
        compared += 1
        if is_lost(theirs, code):
            lost += 1
        elif ours != theirs:
            different.append((ours, theirs))
    return compared, lost, different


def main():
    seed = int(os.environ.get("QEL_WALK_SEED", random.randrange(1 << 31)))
    for setting in ("pagination off", "confirm off", "backtrace past-main on", "backtrace past-entry on",
                    "debuginfod enabled off", "environment LD_BIND_NOW 1"):
        gdb.execute(f"set {setting}")
    for signal in ("SIGSEGV", "SIGUSR1"):
        gdb.execute(f"handle {signal} nostop noprint pass", to_string=True)
    gdb.execute("break qel::test::CallEveryShape", to_string=True)
    gdb.execute("run --role=WalkedByDebugger", to_string=True)
    gdb.execute("delete", to_string=True)
    compared, lost, different = compare_at_points(random.Random(seed))
    print(f"walk_by_gdb: {compared} points, {len(different)} with other frames, {lost} where gdb is lost, seed {seed}")
    for ours, theirs in different[:3]:
        print("ours:\n" + describe(ours) + "\ngdb's:\n" + describe(theirs))
    gdb.execute("kill", to_string=True)
    gdb.execute(f"quit {0 if compared == POINTS and lost < POINTS / 20 and not different else 1}")


main()
