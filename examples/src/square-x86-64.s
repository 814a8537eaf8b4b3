# square-x86-64.s: the program of square-x86-64.qd. _start squares 5 and exits with the result.
        .text
        .globl _start
_start:
        mov     $5, %edi
        call    square
        mov     %eax, %edi          # the exit status: 25
        mov     $60, %eax           # exit
        syscall

# square: returns the square of %edi in %eax.
square:
        push    %rbp
        mov     %rsp, %rbp
        mov     %edi, %eax
        imul    %edi, %eax
        pop     %rbp
        ret

        .data
total:  .quad   0
