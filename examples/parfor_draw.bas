10 REM PARFOR drawing: the Mandelbrot set drawn straight into the screen by
20 REM every processor. Each iteration owns one row of pixels; the colour
30 REM comes from a subroutine after END, which the workers run as compiled
40 REM code too. PSET names its colour (r, g, b), as PARFOR requires.
50 SCREEN 640, 480: CLS 0
60 MX% = 96: DX = 3.2# / 640: DY = 2.4# / 480
70 T0 = TIMER
80 PARFOR Y = 0 TO 479
90 CI = 1.2# - Y * DY
100 FOR X = 0 TO 639
110 CR = -2.4# + X * DX: ZR = 0: ZI = 0: N% = 0
120 WHILE N% < MX% AND ZR * ZR + ZI * ZI <= 4
130 T = ZR * ZR - ZI * ZI + CR: ZI = 2 * ZR * ZI + CI: ZR = T: N% = N% + 1
140 WEND
150 GOSUB 500
160 PSET (X, Y), R%, G%, B%
170 NEXT X
180 NEXT Y
190 T1 = TIMER
200 LOCATE 1, 1: PRINT "Drawn in"; INT((T1 - T0) * 1000); "ms on"; PARWORKERS; "workers"
210 END
500 REM the colour of N% iterations
510 IF N% >= MX% THEN R% = 0: G% = 0: B% = 0: RETURN
520 R% = N% * 7 MOD 256: G% = N% * 13 MOD 256: B% = 255 - N% * 4 MOD 256
530 RETURN
