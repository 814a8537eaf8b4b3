// square-aarch64.s: the program of square-aarch64.qd. _start squares 5 and exits with the result.
        .text
        .globl _start
_start:
        mov     x0, #5
        bl      square
        mov     x8, #93             // exit, with the square as its status
        svc     #0

// square: returns the square of x0 in x0.
square:
        mul     x0, x0, x0
        ret

        .data
total:  .quad   0
