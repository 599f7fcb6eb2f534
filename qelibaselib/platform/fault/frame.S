# The frame of a guard and the place where a faulting thread goes on; i386, both targets.
#ifdef _WIN32
#define SYMBOL(name) _##name
#define HIDDEN(name)
#define LOCAL(name) L##name
#else
#define SYMBOL(name) name
#define HIDDEN(name) .hidden name
#define LOCAL(name) .L##name
#endif

// Of GuardFrame.
#define GUARD_BYTES 864
#define GUARD_OUTER 0
#define GUARD_FRAME 8
#define GUARD_STATE 12
#define GUARD_ESP 20
#define GUARD_SPARE_STACK 48
#define STATE_STACK_KEPT 8
#define RED_ZONE_BYTES 128

// Between the caller's frame and this one. What a catch clause of the caller calls until it has gone below the fault
// stands here, and not on what the frame tells of where it was called: a few hundred bytes.
#define CLAUSE_BYTES 832

// Of the frame below, from its EBP.
#define CALLER (CLAUSE_BYTES + 12)              // the caller's end of its own
#define FUNCTION CALLER
#define ARGUMENTS (CALLER + 4)
#define WORDS (CALLER + 8)
#define THEN (CALLER + 12)
#define THEN_ARGUMENT (CALLER + 16)
#define SAVED_REGISTERS -12
#define GUARD -16                               // where the guard is

    .text
    .globl SYMBOL(fault_run)
    .globl SYMBOL(fault_frame_begin), SYMBOL(fault_frame_recover), SYMBOL(fault_frame_end)
    .globl SYMBOL(fault_thunk), SYMBOL(fault_thunk_end)
    HIDDEN(fault_frame_begin)
    HIDDEN(fault_frame_recover)
    HIDDEN(fault_frame_end)
    HIDDEN(fault_thunk)
    HIDDEN(fault_thunk_end)

    .macro LEAVE_GUARD
#ifdef _WIN32
    cmpl $0, GUARD_SPARE_STACK(%esi)
    jne LOCAL(leave_after_overflow)
#endif
    movl GUARD_OUTER(%esi), %eax
    movl %eax, (%edi)
    .endm

    .macro RESTORE_REGISTERS
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
    .endm

# void fault_run(const void* function, const unsigned* arguments, unsigned words,
#                void (*then)(unsigned result, void* argument), void* argument)
# Saves every register that a callee keeps and finds all of them and the guard again from EBP alone, so that the frame
# serves to throw from whatever has become of ESP and the stack below. One function, without any of C++ around it or
# between: each function around a system call costs its return, which the processor has forgotten meanwhile. Aligned
# for the same reason.
    .p2align 6
#ifndef _WIN32
    .type SYMBOL(fault_run), @function
#endif
SYMBOL(fault_frame_begin):
SYMBOL(fault_run):
LOCAL(start):
    .cfi_startproc
    .cfi_personality 0x9b, LOCAL(personality)
    .cfi_lsda 0x1b, LOCAL(exception_table)
    movl (%esp), %eax
    leal -CLAUSE_BYTES(%esp), %esp
    .cfi_def_cfa_offset CLAUSE_BYTES + 4
    pushl %eax                                  # once more, where a walk along the frames looks for it
    .cfi_def_cfa_offset CLAUSE_BYTES + 8
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
    movl %eax, %edi                             # where the thread's innermost guard is noted
    movl WORDS(%ebp), %ecx
    movl ARGUMENTS(%ebp), %edx
    leal 0(, %ecx, 4), %eax
    subl %eax, %esp
    andl $-16, %esp
LOCAL(next_argument):
    movl -4(%edx, %ecx, 4), %eax
    movl %eax, -4(%esp, %ecx, 4)
    decl %ecx
    jnz LOCAL(next_argument)
LOCAL(call):
    call *FUNCTION(%ebp)
LOCAL(end_of_call):
    cmpl $0, THEN(%ebp)
    je LOCAL(leave)
    leal -16(%esi), %esp
    movl %eax, (%esp)
    movl THEN_ARGUMENT(%ebp), %eax
    movl %eax, 4(%esp)
LOCAL(call_of_then):
    call *THEN(%ebp)
LOCAL(end_of_then):
    LEAVE_GUARD
    .cfi_remember_state
    RESTORE_REGISTERS
    popl %ecx
    .cfi_def_cfa_offset 0
    .cfi_register %eip, %ecx
    jmp *%ecx                                   # a jump is foreseen where a return is not
    .cfi_restore_state
LOCAL(leave):
    LEAVE_GUARD
LOCAL(return_to_caller):
    .cfi_remember_state
    RESTORE_REGISTERS
    ret
    .cfi_restore_state
#ifdef _WIN32
LOCAL(leave_after_overflow):
    leal -16(%esi), %esp
    movl %esi, (%esp)
    call SYMBOL(fault_leave)
    jmp LOCAL(return_to_caller)
#endif
# Entered with EBP = guard->frame and any ESP: throws the guard's exception from this frame.
SYMBOL(fault_frame_recover):
    movl GUARD(%ebp), %eax
    leal -16(%eax), %esp
    cld
    movl %eax, (%esp)
LOCAL(call_of_throw):
    call SYMBOL(fault_throw_from_guard)
LOCAL(end_of_throw):
    ud2
# Entered by the unwinder with the exception in EAX: the guard leaves and the exception goes on, from below the place of
# the fault, so that the frames above it are still there for who writes about it.
LOCAL(leave_by_exception):
    movl GUARD(%ebp), %ecx
    leal -16(%ecx), %esp
    testl $STATE_STACK_KEPT, GUARD_STATE(%ecx)
    jz LOCAL(resume)
    movl GUARD_ESP(%ecx), %esp
    subl $RED_ZONE_BYTES, %esp
    andl $-16, %esp
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
    CALL_SITE LOCAL(call_of_then), LOCAL(end_of_then), LOCAL(leave_by_exception)
    CALL_SITE LOCAL(call_of_throw), LOCAL(end_of_throw), LOCAL(leave_by_exception)
    CALL_SITE LOCAL(call_of_resume), LOCAL(end_of_resume), LOCAL(start)
LOCAL(end_of_call_sites):
    .text

# Entered with EBP = guard and ESP on any usable stack, a multiple of 16. To the unwinder it is a signal frame whose
# caller is the interrupted instruction: the registers of that frame are the guard's members from eip (16) to edi (36).
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
