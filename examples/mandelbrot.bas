10 REM Mandelbrot set in colour: each pixel of the screen is one point of
20 REM the complex plane, coloured by how quickly it escapes. Esc stops.
30 SCREEN 640, 480: CLS 0
40 MAXIT% = 64
50 WINDOW (-2.4, -1.2)-(0.8, 1.2)
60 FOR PY% = 0 TO 479
70   FOR PX% = 0 TO 639
80     CR# = -2.4 + PX% * 3.2 / 639: CI# = 1.2 - PY% * 2.4 / 479
90     ZR# = 0: ZI# = 0: N% = 0
100    WHILE N% < MAXIT% AND ZR# * ZR# + ZI# * ZI# < 4
110      T# = ZR# * ZR# - ZI# * ZI# + CR#: ZI# = 2 * ZR# * ZI# + CI#: ZR# = T#: N% = N% + 1
120    WEND
130    IF N% = MAXIT% THEN C& = 0 ELSE C& = ((N% * 7) MOD 256) * 65536 + ((N% * 13) MOD 256) * 256 + 255 - (N% * 4) MOD 256
140    PSET (CR#, CI#), C&
150  NEXT
160 NEXT
170 WINDOW: LOCATE 1, 1: PRINT "Mandelbrot set, -2.4..0.8 x -1.2..1.2"
