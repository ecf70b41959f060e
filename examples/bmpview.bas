10 REM A BMP viewer: shows a BMP file scaled to fit the screen, or the
20 REM picture this program draws and saves when no file is given.
30 REM Run it as:  tambril bmpview.bas picture.bmp
40 SCREEN 800, 600: CLS 0
50 F$ = COMMANDLINEARG$(1)
60 IF F$ <> "" THEN 120
70 REM No file: draw a test card and save it, then view that.
80 FOR I = 0 TO 15: LINE (I * 20, 0)-(I * 20 + 19, 99), I, BF: NEXT
90 FOR Y = 100 TO 199: LINE (0, Y)-(319, Y), (Y - 100) * 2 * 65536 + 128 * 256 + 255 - (Y - 100) * 2: NEXT
100 CIRCLE (160, 100), 80, 15: PAINT (160, 100), 15, 15: CIRCLE (160, 100), 60, 0
110 F$ = "testcard.bmp": SAVEBMP F$, (0, 0)-(319, 199): CLS 0
120 ON ERROR GOTO 300
130 LOADBMP 1, F$
140 ON ERROR GOTO 0
150 W = BMPWIDTH(1): H = BMPHEIGHT(1)
160 S = 1: IF W > 780 OR H > 560 THEN S = 780 / W: IF 560 / H < S THEN S = 560 / H
170 IF S = 1 THEN BITBLT 1, (800 - W) \ 2, (600 - H) \ 2: GOTO 240
180 REM Too big: every pixel of the screen takes the picture's nearest pixel,
190 REM one row at a time through bitmap 0 (the screen) as scratch space.
200 DW = INT(W * S): DH = INT(H * S): OX = (800 - DW) \ 2: OY = (600 - DH) \ 2
210 FOR Y = 0 TO DH - 1: SY = INT(Y / S)
220   FOR X = 0 TO DW - 1: BITBLT 1, OX + X, OY + Y, INT(X / S), SY, 1, 1: NEXT
230 NEXT
240 LOCATE 37, 1: PRINT F$; ":"; W; "x"; H; "pixels";
250 IF S < 1 THEN PRINT USING " shown at ###%"; S * 100;
260 END
300 PRINT "Cannot show "; F$; ": "; ERROR$: END
