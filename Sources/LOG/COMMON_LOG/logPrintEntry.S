/*
 * logPrint(int level, const char* tag, const char* path, int line, const char* format, ...)
 *
 * The level test in front of everything else. A variadic function written in C++ saves all argument
 * registers before its first statement, which is most of what a suppressed line costs: measured from
 * outside, 1.3 times an empty call, against less than 1.1 here. What is printed jumps on with every
 * argument where it was; no frame exists yet, so there is nothing to unwind.
 *
 *     if (korvaneLogLevel > level || level > 90) return;
 *     goto korvanePrintLine;
 *
 * The compiler flags decide whether the entry is a landing pad for indirect branches.
 * KORVANE_ASSEMBLY_ENTRY=OFF builds the same test in C++ instead, for every other processor and for
 * the sanitizers.
 */

#define HIGHEST_PRINTED_LEVEL 90

#if defined(__x86_64__)

#ifdef __CET__
#include <cet.h>
#else
#define _CET_ENDBR
#endif

        .text
        .p2align 6
        .globl  logPrint
        .type   logPrint, @function
        .hidden korvaneLogLevel
        .hidden korvanePrintLine
logPrint:
        .cfi_startproc
        _CET_ENDBR
        /* Not %eax: its low byte counts the vector registers that hold arguments. */
        movl    korvaneLogLevel(%rip), %r11d
        cmpl    %edi, %r11d
        jle     1f
        ret
1:      cmpl    $HIGHEST_PRINTED_LEVEL, %edi
        jle     korvanePrintLine
        ret
        .cfi_endproc
        .size   logPrint, . - logPrint

#elif defined(__aarch64__)

        .text
        .p2align 6
        .globl  logPrint
        .type   logPrint, %function
        .hidden korvaneLogLevel
        .hidden korvanePrintLine
logPrint:
        .cfi_startproc
#if defined(__ARM_FEATURE_BTI_DEFAULT) && __ARM_FEATURE_BTI_DEFAULT == 1
        hint    #34 /* bti c */
#endif
        adrp    x16, korvaneLogLevel
        ldr     w16, [x16, #:lo12:korvaneLogLevel]
        cmp     w16, w0
        b.le    1f
        ret
1:      cmp     w0, #HIGHEST_PRINTED_LEVEL
        b.gt    2f
        b       korvanePrintLine
2:      ret
        .cfi_endproc
        .size   logPrint, . - logPrint

#if defined(__ARM_FEATURE_BTI_DEFAULT) && __ARM_FEATURE_BTI_DEFAULT == 1
        /* GNU property note: this object honours branch target identification. The entry leaves the
           return address in its register, so the note may claim return address signing as well. */
        .section .note.gnu.property, "a"
        .p2align 3
        .long   4, 16, 5
        .asciz  "GNU"
        .long   0xc0000000, 4, 3, 0
        .previous
#endif

#else
#error "No assembly entry for this processor: configure with -DKORVANE_ASSEMBLY_ENTRY=OFF"
#endif

        .section .note.GNU-stack, "", %progbits
