# The entry of the signal handler, the change of stacks, probes, register capture and the entry of RaiseException.

    .text
    .macro HIDDEN_LABEL name
    .globl \name
    .hidden \name
\name:
    .endm

# void fault_signal_entry(int signal, siginfo_t* info, void* machine)
# The kernel leaves the alignment check on in a handler. Compiled code makes unaligned accesses and would fault again, so
# the flag goes first. The jump leaves the return address where fault_on_signal looks for it.
    .p2align 4
HIDDEN_LABEL fault_signal_entry
    pushfl
    andl $~0x40000, (%esp)
    popfl
    jmp fault_on_signal

# void fault_call_on_stack(uintptr_t top, void (*body)(void* argument), void* argument)
# EBP stays on the caller's stack, by which the unwinder finds its way back there.
    .p2align 4
HIDDEN_LABEL fault_call_on_stack
    .cfi_startproc
    pushl %ebp
    .cfi_def_cfa_offset 8
    .cfi_offset %ebp, -8
    movl %esp, %ebp
    .cfi_def_cfa_register %ebp
    movl 16(%ebp), %eax
    movl 12(%ebp), %ecx
    movl 8(%ebp), %esp
    subl $16, %esp
    movl %eax, (%esp)
    call *%ecx
    leave
    .cfi_def_cfa %esp, 4
    .cfi_restore %ebp
    ret
    .cfi_endproc

# int fault_probe_read(const void* address)
    .p2align 4
HIDDEN_LABEL fault_probe_read
    .cfi_startproc
    movl 4(%esp), %eax
HIDDEN_LABEL fault_probe_read_instruction
    movb (%eax), %al
    xorl %eax, %eax
    ret
HIDDEN_LABEL fault_probe_failed
    movl $1, %eax
    ret
    .cfi_endproc

# int fault_probe_write(void* address)
    .p2align 4
HIDDEN_LABEL fault_probe_write
    .cfi_startproc
    movl 4(%esp), %eax
HIDDEN_LABEL fault_probe_write_instruction
    lock orb $0, (%eax)
    xorl %eax, %eax
    ret
    .cfi_endproc

# void RtlCaptureContext(CONTEXT* context): all but the debug registers, as they are after the return.
    .set ContextFlags, 0
    .set FloatSave, 28
    .set SegGs, 140
    .set SegFs, 144
    .set SegEs, 148
    .set SegDs, 152
    .set Edi, 156
    .set Esi, 160
    .set Ebx, 164
    .set Edx, 168
    .set Ecx, 172
    .set Eax, 176
    .set Ebp, 180
    .set Eip, 184
    .set SegCs, 188
    .set EFlags, 192
    .set Esp, 196
    .set SegSs, 200
    .set ExtendedRegisters, 204
    .set FxImageSize, 512
    .set AllButDebugRegisters, 0x1002f

    .macro CAPTURE_SEGMENT segment, offset
    movl %\segment, %ecx
    movzwl %cx, %ecx
    movl %ecx, \offset(%eax)
    .endm

    .globl RtlCaptureContext, fault_capture_context
    .type RtlCaptureContext, @function
    .hidden fault_capture_context
    .p2align 4
RtlCaptureContext:
fault_capture_context:
    .cfi_startproc
    pushfl
    .cfi_adjust_cfa_offset 4
    pushl %eax
    .cfi_adjust_cfa_offset 4
    movl 12(%esp), %eax
    movl $AllButDebugRegisters, ContextFlags(%eax)
    movl %edi, Edi(%eax)
    movl %esi, Esi(%eax)
    movl %ebx, Ebx(%eax)
    movl %edx, Edx(%eax)
    movl %ecx, Ecx(%eax)
    movl %ebp, Ebp(%eax)
    popl Eax(%eax)
    .cfi_adjust_cfa_offset -4
    popl EFlags(%eax)
    .cfi_adjust_cfa_offset -4
    movl (%esp), %ecx
    movl %ecx, Eip(%eax)
    leal 4(%esp), %ecx
    movl %ecx, Esp(%eax)
    CAPTURE_SEGMENT gs, SegGs
    CAPTURE_SEGMENT fs, SegFs
    CAPTURE_SEGMENT es, SegEs
    CAPTURE_SEGMENT ds, SegDs
    CAPTURE_SEGMENT cs, SegCs
    CAPTURE_SEGMENT ss, SegSs
    leal 4(%eax), %edi                      # the debug registers read 0
    pushl %eax
    .cfi_adjust_cfa_offset 4
    xorl %eax, %eax
    movl $6, %ecx
    cld
    rep stosl
    popl %eax
    .cfi_adjust_cfa_offset -4
    fnsave FloatSave(%eax)
    fwait
    frstor FloatSave(%eax)
    pushl %ebp
    .cfi_adjust_cfa_offset 4
    .cfi_rel_offset %ebp, 0
    movl %esp, %ebp
    .cfi_def_cfa_register %ebp
    subl $FxImageSize, %esp
    andl $-16, %esp                         # fxsave wants an aligned place
    fxsave (%esp)
    movl %esp, %esi
    leal ExtendedRegisters(%eax), %edi
    movl $(FxImageSize / 4), %ecx
    rep movsl
    leave
    .cfi_def_cfa %esp, 4
    .cfi_restore %ebp
    movl Edi(%eax), %edi
    movl Esi(%eax), %esi
    movl Ecx(%eax), %ecx
    pushl EFlags(%eax)
    .cfi_adjust_cfa_offset 4
    popfl
    .cfi_adjust_cfa_offset -4
    movl Eax(%eax), %eax
    ret
    .cfi_endproc
    .size RtlCaptureContext, . - RtlCaptureContext

# void RaiseException(DWORD code, DWORD flags, DWORD count, const ULONG_PTR* arguments): captures the caller's registers
# before compiled code can change them and goes on in fault_raise(context, code, flags, count, arguments).
    .globl RaiseException
    .type RaiseException, @function
    .p2align 4
RaiseException:
    .cfi_startproc
    pushl %ebp
    .cfi_def_cfa_offset 8
    .cfi_offset %ebp, -8
    movl %esp, %ebp
    .cfi_def_cfa_register %ebp
    subl $(716 + 32), %esp
    andl $-16, %esp
    leal 32(%esp), %eax
    movl %eax, (%esp)
    call fault_capture_context
    leal 32(%esp), %eax
    movl (%ebp), %ecx
    movl %ecx, Ebp(%eax)
    movl 4(%ebp), %ecx
    movl %ecx, Eip(%eax)
    leal 8(%ebp), %ecx
    movl %ecx, Esp(%eax)
    movl %eax, (%esp)
    movl 8(%ebp), %ecx
    movl %ecx, 4(%esp)
    movl 12(%ebp), %ecx
    movl %ecx, 8(%esp)
    movl 16(%ebp), %ecx
    movl %ecx, 12(%esp)
    movl 20(%ebp), %ecx
    movl %ecx, 16(%esp)
    call fault_raise
    leave
    .cfi_def_cfa %esp, 4
    .cfi_restore %ebp
    ret
    .cfi_endproc
    .size RaiseException, . - RaiseException

    .section .note.GNU-stack,"",@progbits
