; hello.s: the procedure of hello.qd
        .text
start:  xor     eax, eax
        mov     ecx, 8
        ; count up
loop:   inc     eax
        dec     ecx
        jnz     loop
        ret

        .data
total:  .quad   0
limit   =       -100
