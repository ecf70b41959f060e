10 REM PARFOR: the Mandelbrot set computed row by row on every processor,
20 REM then drawn. Each iteration owns one row: it writes only IT%(X, Y) with
30 REM Y the PARFOR variable, and its scalars (CR, CI, ZR, ZI, T, N%) are
40 REM private copies. The same loop with FOR shows what PARFOR gains.
50 W% = 320: H% = 240: MX% = 200
60 DIM IT%(W% - 1, H% - 1), CHK%(W% - 1, H% - 1)
70 OPTION PARTHREADS 0
80 XMIN = -2.2#: YMIN = -1.2#: DX = 3.2# / W%: DY = 2.4# / H%
90 T0 = TIMER
100 FOR Y = 0 TO H% - 1
110 GOSUB 500
120 NEXT Y
130 T1 = TIMER
140 PARFOR Y = 0 TO H% - 1
150 CI = YMIN + Y * DY
160 FOR X = 0 TO W% - 1
170 CR = XMIN + X * DX: ZR = 0: ZI = 0: N% = 0
180 WHILE N% < MX% AND ZR * ZR + ZI * ZI <= 4
190 T = ZR * ZR - ZI * ZI + CR: ZI = 2 * ZR * ZI + CI: ZR = T: N% = N% + 1
200 WEND
210 IT%(X, Y) = N%
220 NEXT X
230 NEXT Y
240 T2 = TIMER
250 BAD = 0
260 FOR Y = 0 TO H% - 1: FOR X = 0 TO W% - 1
270 IF IT%(X, Y) <> CHK%(X, Y) THEN BAD = BAD + 1
280 NEXT X, Y
290 CLS
300 FOR Y = 0 TO H% - 1: FOR X = 0 TO W% - 1
310 N% = IT%(X, Y): IF N% >= MX% THEN C = 0 ELSE C = (N% * 7 MOD 256) * 65536 + (N% * 13 MOD 256) * 256 + 128
320 PSET (X * 3, Y * 3), C: PSET (X * 3 + 1, Y * 3), C: PSET (X * 3, Y * 3 + 1), C: PSET (X * 3 + 1, Y * 3 + 1), C
330 NEXT X, Y
340 LOCATE 1, 1
350 PRINT "FOR:"; INT((T1 - T0) * 1000); "ms  PARFOR:"; INT((T2 - T1) * 1000); "ms on"; PARWORKERS; "workers"
360 PRINT "points that differ:"; BAD
370 END
500 REM one row with FOR, into CHK%
510 CI = YMIN + Y * DY
520 FOR X = 0 TO W% - 1
530 CR = XMIN + X * DX: ZR = 0: ZI = 0: N% = 0
540 WHILE N% < MX% AND ZR * ZR + ZI * ZI <= 4
550 T = ZR * ZR - ZI * ZI + CR: ZI = 2 * ZR * ZI + CI: ZR = T: N% = N% + 1
560 WEND
570 CHK%(X, Y) = N%
580 NEXT X
590 RETURN
