; tour.s: two procedures, a routine in a COMDAT section, data
        .text
main:   call    helper
        call    inline_add
        xor     eax, eax
        ret
.alt:   mov     eax, 1
        ret

helper: push    rbp
        mov     rbp, rsp
        include "tour.inc"
        pop     rbp
        ret

        .section .text.inline, comdat
inline_add:
        add     eax, ebx
        ret

        .data
table:  .long   1, 2, 3, 4
scale:  .double 2.5
