# The frame of a guard and the place where a faulting thread goes on; i386, both targets.
#ifdef _WIN32
#define SYMBOL(name) _##name
#define HIDDEN(name)
#else
#define SYMBOL(name) name
#define HIDDEN(name) .hidden name
#endif

#define GUARD_FRAME 8

    .text
    .globl SYMBOL(fault_frame_call), SYMBOL(fault_frame_recover), SYMBOL(fault_frame_end)
    .globl SYMBOL(fault_thunk), SYMBOL(fault_thunk_end)
    HIDDEN(fault_frame_call)
    HIDDEN(fault_frame_recover)
    HIDDEN(fault_frame_end)
    HIDDEN(fault_thunk)
    HIDDEN(fault_thunk_end)

# void fault_frame_call(GuardFrame* guard, void (*body)(void*), void* argument)
# Saves every register that a callee keeps and finds all of them again from EBP alone, so that the frame serves to throw
# from whatever has become of ESP and the stack below.
    .p2align 4
SYMBOL(fault_frame_call):
    .cfi_startproc
    pushl %ebp
    .cfi_def_cfa_offset 8
    .cfi_offset %ebp, -8
    movl %esp, %ebp
    .cfi_def_cfa_register %ebp
    pushl %ebx
    .cfi_offset %ebx, -12
    pushl %esi
    .cfi_offset %esi, -16
    pushl %edi
    .cfi_offset %edi, -20
    subl $28, %esp
    andl $-16, %esp
    movl 8(%ebp), %eax
    movl %ebp, GUARD_FRAME(%eax)
    movl 16(%ebp), %eax
    movl %eax, (%esp)
    call *12(%ebp)
    leal -12(%ebp), %esp
    popl %edi
    popl %esi
    popl %ebx
    popl %ebp
    .cfi_remember_state
    .cfi_def_cfa %esp, 4
    .cfi_restore %ebp
    .cfi_restore %ebx
    .cfi_restore %esi
    .cfi_restore %edi
    ret
    .cfi_restore_state
# Entered with EBP = guard->frame and any ESP: throws the guard's exception from this frame.
SYMBOL(fault_frame_recover):
    leal -40(%ebp), %esp
    andl $-16, %esp
    cld
    movl 8(%ebp), %eax
    movl %eax, (%esp)
    call SYMBOL(fault_throw_from_guard)
    ud2
    .cfi_endproc
SYMBOL(fault_frame_end):
    nop

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
