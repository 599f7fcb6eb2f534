# The frame of a guard, and the place where a faulting thread goes on; i386, both targets.
#
# Problem: a fault can leave the stack below a guard in any state, and the stack pointer anywhere. The exception that is
# made of it has to arrive at the guard's caller all the same, with every register that the caller expects to be kept.
#
# Idea: fault_run keeps all that it needs in its own frame, at fixed distances from EBP, and finds it again from EBP
# alone. The unwinder is told so by the directives below; where it cannot unwind, the thrower puts EBP back and jumps to
# fault_frame_recover, and the exception starts from here.
#
# Invariant: between the return of fault_enter and the leaving of the guard, [EBP + GUARD] is the address of the guard,
# and that guard is one of the thread's chain.
#ifdef _WIN32
#define SYMBOL(name) _##name
#define HIDDEN(name)
#define LOCAL(name) L##name
#else
#define SYMBOL(name) name
#define HIDDEN(name) .hidden name
#define LOCAL(name) .L##name
#endif

// Members of GuardFrame.
#define GUARD_BYTES 864
#define GUARD_FRAME 8
#define GUARD_STATE 12
#define GUARD_LANDING 40
#define STATE_QUIET 0

// Left free between the caller's frame and this one. The caller's catch clause reuses the stack from here on, and
// would overwrite the frames of the fault before its report has read them. The clause has this much room for what it
// calls until it reaches fault::RunBelow, which moves the stack pointer below the fault.
#define CLAUSE_BYTES 832

// Distances from EBP in the frame of fault_run.
#define CALLER (CLAUSE_BYTES + 12)              // where the caller's frame ends
#define BODY CALLER
#define ARGUMENT (CALLER + 4)
#define SAVED_REGISTERS -12
#define GUARD -16                               // the address of the guard

    .text
    .globl SYMBOL(fault_run)
    .globl SYMBOL(fault_frame_begin), SYMBOL(fault_frame_recover), SYMBOL(fault_frame_end)
    .globl SYMBOL(fault_thunk), SYMBOL(fault_thunk_end)
    HIDDEN(fault_frame_begin)
    HIDDEN(fault_frame_recover)
    HIDDEN(fault_frame_end)
    HIDDEN(fault_thunk)
    HIDDEN(fault_thunk_end)

# void fault_run(void (*body)(void* argument), void* argument)
# Puts a guard on the stack, makes it the thread's innermost, calls the body and leaves the guard.
#ifndef _WIN32
    .type SYMBOL(fault_run), @function
#endif
    .p2align 4
SYMBOL(fault_frame_begin):
SYMBOL(fault_run):
LOCAL(start):
    .cfi_startproc
    .cfi_personality 0x9b, LOCAL(personality)
    .cfi_lsda 0x1b, LOCAL(exception_table)
    movl (%esp), %eax
    leal -CLAUSE_BYTES(%esp), %esp
    .cfi_def_cfa_offset CLAUSE_BYTES + 4
    pushl %eax                                  # the return address again, beside the saved EBP: a walk along the
    .cfi_def_cfa_offset CLAUSE_BYTES + 8        # chain of frames expects it there
    pushl %ebp
    .cfi_def_cfa_offset CALLER
    .cfi_offset %ebp, -CALLER
    movl %esp, %ebp
    .cfi_def_cfa_register %ebp
    pushl %ebx
    .cfi_offset %ebx, -CALLER - 4
    pushl %esi
    .cfi_offset %esi, -CALLER - 8
    pushl %edi
    .cfi_offset %edi, -CALLER - 12
    subl $(GUARD_BYTES + 16), %esp
    andl $-16, %esp
    movl %esp, %esi
    movl %esi, GUARD(%ebp)
    movl %ebp, GUARD_FRAME(%esi)
    subl $16, %esp
    movl %esi, (%esp)
    call SYMBOL(fault_enter)
    movl ARGUMENT(%ebp), %eax
    movl %eax, (%esp)
LOCAL(call):
    call *BODY(%ebp)
LOCAL(end_of_call):
    movl %esi, (%esp)
    call SYMBOL(fault_leave)
    .cfi_remember_state
    leal SAVED_REGISTERS(%ebp), %esp
    popl %edi
    popl %esi
    popl %ebx
    popl %ebp
    leal (CLAUSE_BYTES + 4)(%esp), %esp
    .cfi_def_cfa %esp, 4
    .cfi_restore %ebp
    .cfi_restore %ebx
    .cfi_restore %esi
    .cfi_restore %edi
    ret
    .cfi_restore_state
# Entered with EBP = guard->frame and any ESP: throws the guard's exception from this frame.
SYMBOL(fault_frame_recover):
    movl GUARD(%ebp), %eax
    movl GUARD_LANDING(%eax), %esp
    cld
    movl %eax, (%esp)
LOCAL(call_of_throw):
    call SYMBOL(fault_throw_from_guard)
LOCAL(end_of_throw):
    ud2
# Entered by the unwinder with the exception in EAX: the guard leaves and the exception goes on. After a fault this runs
# where the thrower ran (the landing): the frames of the fault are still there for the report, and there is room even
# when the stack below the guard is used up.
LOCAL(leave_by_exception):
    movl GUARD(%ebp), %ecx
    leal -16(%ecx), %esp
    cmpl $STATE_QUIET, GUARD_STATE(%ecx)
    je LOCAL(resume)
    movl GUARD_LANDING(%ecx), %esp
LOCAL(resume):
    movl %ecx, (%esp)
    movl %eax, 4(%esp)
LOCAL(call_of_resume):
    call SYMBOL(fault_leave_by_exception)
LOCAL(end_of_resume):
    ud2
    .cfi_endproc
#ifndef _WIN32
    .size SYMBOL(fault_run), . - SYMBOL(fault_run)
#endif
SYMBOL(fault_frame_end):
    nop

    .data
    .p2align 2
LOCAL(personality):
    .long SYMBOL(__gxx_personality_v0)
#ifdef _WIN32
    .section .gcc_except_table, "w"
#else
    .section .gcc_except_table, "a", @progbits
#endif
    .macro CALL_SITE first, last, landing
    .uleb128 \first - LOCAL(start)
    .uleb128 \last - \first
    .uleb128 \landing - LOCAL(start)
    .uleb128 0                                  # a cleanup
    .endm
    .p2align 2
LOCAL(exception_table):
    .byte 0xff                                  # landing pads count from the function's start
    .byte 0xff                                  # no types
    .byte 1                                     # what follows is in uleb128
    .uleb128 LOCAL(end_of_call_sites) - LOCAL(call_sites)
LOCAL(call_sites):
    CALL_SITE LOCAL(call), LOCAL(end_of_call), LOCAL(leave_by_exception)
    CALL_SITE LOCAL(call_of_throw), LOCAL(end_of_throw), LOCAL(leave_by_exception)
    CALL_SITE LOCAL(call_of_resume), LOCAL(end_of_resume), LOCAL(start)
LOCAL(end_of_call_sites):
    .text

# The place where a thread goes on after a fault, entered with EBP = guard and ESP on any usable stack, a multiple of 16.
# To the unwinder it is a signal frame whose caller is the interrupted instruction: the registers of that frame are the
# guard's members from eip (16) to edi (36). So an exception that is thrown here unwinds from the very instruction of the
# fault, although the stack pointer may be on another stack.
    .p2align 4
    nop
SYMBOL(fault_thunk):
    .cfi_startproc
    .cfi_signal_frame
    .cfi_escape 0x0f, 3, 0x75, 20, 0x06         # CFA: the word at EBP + 20, the interrupted ESP
    .cfi_escape 0x10, 8, 2, 0x75, 16            # EIP is at EBP + 16
    .cfi_escape 0x10, 5, 2, 0x75, 24            # EBP
    .cfi_escape 0x10, 3, 2, 0x75, 28            # EBX
    .cfi_escape 0x10, 6, 2, 0x75, 32            # ESI
    .cfi_escape 0x10, 7, 2, 0x75, 36            # EDI
    nop
    movl %ebp, (%esp)
    call SYMBOL(fault_throw)
    ud2
    .cfi_endproc
SYMBOL(fault_thunk_end):
    nop
#ifndef _WIN32
    .section .note.GNU-stack,"",@progbits
#endif
