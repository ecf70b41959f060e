10 REM Graphics benchmark (not a timed test): run with
20 REM   build/tambril --headless --batch tests/bench/graphics.bas
30 REM Each figure is the drawing time alone: the same loop without the
40 REM drawing statement is timed too and subtracted.
50 DEFINT I-K: DEFDBL T
60 DIM X1(999), Y1(999), X2(999), Y2(999), R(999)
70 RANDOMIZE 1
80 FOR I = 0 TO 999: X1(I) = INT(RND * 1024): Y1(I) = INT(RND * 768): X2(I) = INT(RND * 1024): Y2(I) = INT(RND * 768): R(I) = 1 + INT(RND * 200): NEXT
90 CLS 0
100 REM --- 100,000 random LINEs
110 T0 = TIMER: FOR J = 1 TO 100: FOR I = 0 TO 999: C = I AND 15: NEXT: NEXT: TE = TIMER - T0
120 T0 = TIMER: FOR J = 1 TO 100: FOR I = 0 TO 999: LINE (X1(I), Y1(I))-(X2(I), Y2(I)), I AND 15: NEXT: NEXT: TL = TIMER - T0
130 PRINT USING "100,000 LINEs           ####.## ms total, loop ####.## ms, ###.### us per LINE"; (TL - TE) * 1000; TE * 1000; (TL - TE) * 10
140 REM --- 10,000 CIRCLEs
150 CLS 0
160 T0 = TIMER: FOR J = 1 TO 10: FOR I = 0 TO 999: C = I AND 15: NEXT: NEXT: TE = TIMER - T0
170 T0 = TIMER: FOR J = 1 TO 10: FOR I = 0 TO 999: CIRCLE (X1(I), Y1(I)), R(I), I AND 15: NEXT: NEXT: TC = TIMER - T0
180 PRINT USING "10,000 CIRCLEs          ####.## ms total, ###.### us per CIRCLE"; (TC - TE) * 1000; (TC - TE) * 100
190 REM --- 100 full-screen PAINTs
200 CLS 0
210 T0 = TIMER: FOR I = 1 TO 100: PAINT (512, 384), 1 + (I AND 1): NEXT: TP = TIMER - T0
220 PRINT USING "100 full-screen PAINTs  ####.## ms total, ###.### ms per PAINT"; TP * 1000; TP * 10
230 REM --- 1,000 BITBLTs of a 1024x768 bitmap
240 CLS 0: FOR I = 0 TO 767 STEP 8: LINE (0, I)-(1023, I + 7), I \ 8, BF: NEXT
250 SAVEBMP "graphics_bench.bmp": LOADBMP 1, "graphics_bench.bmp": KILL "graphics_bench.bmp"
260 T0 = TIMER: FOR I = 1 TO 1000: BITBLT 1, 0, 0: NEXT: TB = TIMER - T0
270 PRINT USING "1,000 full-frame BITBLTs ####.## ms total, ###.### ms per BITBLT"; TB * 1000; TB
280 REM --- 64 moving 64x64 sprites for 600 frames
290 CLS 0: FOR I = 0 TO 1023 STEP 16: LINE (I, 0)-(I, 767), 8: NEXT
300 CIRCLE (32, 32), 31, 14: PAINT (32, 32), 12, 14: SPRITE GET 1, (0, 0)-(63, 63), 0
310 FOR K = 2 TO 64: SPRITE GET K, (0, 0)-(63, 63), 0: NEXT: LINE (0, 0)-(63, 63), 0, BF
320 DIM SX(64), SY(64), DX(64), DY(64)
330 FOR K = 1 TO 64: SX(K) = INT(RND * 960): SY(K) = INT(RND * 704): DX(K) = 1 + INT(RND * 4): DY(K) = 1 + INT(RND * 4): SPRITE K, SX(K), SY(K): NEXT
340 T0 = TIMER
350 FOR F = 1 TO 600: FOR K = 1 TO 64
360 SX(K) = SX(K) + DX(K): IF SX(K) < 0 OR SX(K) > 960 THEN DX(K) = -DX(K): SX(K) = SX(K) + 2 * DX(K)
370 SY(K) = SY(K) + DY(K): IF SY(K) < 0 OR SY(K) > 704 THEN DY(K) = -DY(K): SY(K) = SY(K) + 2 * DY(K)
380 NEXT: NEXT: TE = TIMER - T0
390 T0 = TIMER
400 FOR F = 1 TO 600: FOR K = 1 TO 64
410 SX(K) = SX(K) + DX(K): IF SX(K) < 0 OR SX(K) > 960 THEN DX(K) = -DX(K): SX(K) = SX(K) + 2 * DX(K)
420 SY(K) = SY(K) + DY(K): IF SY(K) < 0 OR SY(K) > 704 THEN DY(K) = -DY(K): SY(K) = SY(K) + 2 * DY(K)
430 MOVESPRITE K, SX(K), SY(K)
440 NEXT: NEXT: TS = TIMER - T0
450 PRINT USING "600 frames of 64 sprites ####.## ms total, ###.### ms per frame (#.## of a core at 60 fps), ###.### ms per frame with the BASIC loop"; (TS - TE) * 1000; (TS - TE) / .6; (TS - TE) / 10; TS / .6
460 SPRITEOFF
