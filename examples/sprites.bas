10 REM Sprites: balls drawn once, made into sprites and bounced around a
20 REM scene. Balls that touch trade directions; a ball that hits the paddle
30 REM bounces and scores. Move the paddle with the mouse (or Left/Right); Esc stops.
40 SCREEN 800, 600: CLS 0
50 REM The pictures are drawn on the screen, then taken as sprites.
60 FOR I = 1 TO 6: CIRCLE (20 + (I - 1) * 40, 20), 15, 15: PAINT (20 + (I - 1) * 40, 20), 8 + I, 15: NEXT
70 FOR I = 1 TO 6: SPRITE GET I, (4 + (I - 1) * 40, 4)-(36 + (I - 1) * 40, 36), 0: NEXT
80 LINE (0, 0)-(260, 40), 0, BF
90 LINE (0, 0)-(119, 11), 14, BF: LINE (0, 0)-(119, 11), 6, B: SPRITE GET 10, (0, 0)-(119, 11), -1: LINE (0, 0)-(119, 11), 0, BF
100 REM The scene under the sprites: a grid and a frame.
110 FOR X = 0 TO 799 STEP 40: LINE (X, 0)-(X, 599), 8: NEXT: FOR Y = 0 TO 599 STEP 40: LINE (0, Y)-(799, Y), 8: NEXT
120 LINE (0, 0)-(799, 599), 7, B
130 DIM X(6), Y(6), DX(6), DY(6)
140 RANDOMIZE TIMER
150 FOR I = 1 TO 6: X(I) = 50 + RND * 680: Y(I) = 50 + RND * 300: DX(I) = 2 + RND * 4: DY(I) = 2 + RND * 4: SPRITE I, X(I), Y(I): NEXT
160 PX = 340: SPRITE 10, PX, 570: SCORE = 0
170 SPRITETEXT 20, "Score: 0", 15: SPRITE 20, 10, 10
180 T0 = TIMER
190 REM One frame every 1/60 s.
200 FOR I = 1 TO 6
210   X(I) = X(I) + DX(I): Y(I) = Y(I) + DY(I)
220   IF X(I) < 2 OR X(I) > 766 THEN DX(I) = -DX(I): X(I) = X(I) + 2 * DX(I)
230   IF Y(I) < 2 THEN DY(I) = -DY(I): Y(I) = Y(I) + 2 * DY(I)
240   IF Y(I) > 600 THEN Y(I) = 40: X(I) = 50 + RND * 680
250   MOVESPRITE I, X(I), Y(I)
260   IF SPRITECOLLIDE(I, 10) THEN DY(I) = -ABS(DY(I)): SCORE = SCORE + 1: SPRITETEXT 20, "Score:" + STR$(SCORE), 15
265   J = SPRITECOLLIDE(I): IF J > I AND J < 7 THEN SWAP DX(I), DX(J): SWAP DY(I), DY(J)
270 NEXT
280 IF MOUSEPRESENT THEN PX = MOUSEX - 60
290 K$ = INKEY$: IF K$ = CHR$(0) + "K" THEN PX = PX - 20 ELSE IF K$ = CHR$(0) + "M" THEN PX = PX + 20
300 IF PX < 0 THEN PX = 0 ELSE IF PX > 680 THEN PX = 680
310 MOVESPRITE 10, PX, 570
320 WHILE TIMER - T0 < 1 / 60: WEND: T0 = TIMER
330 GOTO 200
