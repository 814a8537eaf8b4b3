; count.s: counts to ten in eax
        .text
        .globl  count
count:  xor     eax, eax
        mov     ecx, 10
; the loop
again:  inc     eax
        loop    again
        ret
