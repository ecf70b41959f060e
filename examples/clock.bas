10 REM An analogue clock: ON TIMER redraws the hands every second, XOR
20 REM drawing erases the old hands without touching the face.
30 SCREEN 480, 480: CLS 0
40 CX = 240: CY = 240: R = 200: PI = 3.14159265#
50 CIRCLE (CX, CY), R + 10, 15: CIRCLE (CX, CY), R + 14, 7: PAINT (CX, CY), 1, 15
60 FOR M = 0 TO 59
70   A = M * PI / 30: L = 8 + 10 * (M MOD 5 = 0) * -1
80   LINE (CX + (R - L) * SIN(A), CY - (R - L) * COS(A))-(CX + R * SIN(A), CY - R * COS(A)), 15
90 NEXT
100 FOR H = 1 TO 12: A = H * PI / 6: COLOR 14, 1: GPRINT CX + 165 * SIN(A) - 8, CY - 165 * COS(A) - 8, RIGHT$(STR$(H), 2): NEXT: COLOR 15, 0
110 LOCATE 30, 1: PRINT "Esc stops";
120 ON TIMER(0) GOSUB 200: TIMER(0) = 1000: TIMER(0) ON
130 GOSUB 200
140 WAITREL 50: GOTO 140
200 REM Hands: the old ones are XORed away, the new ones XORed in. Over the
205 REM blue face (&HAA) they show as yellow, light cyan and light red.
210 IF DRAWN THEN GOSUB 300
220 T$ = TIME$: HH = VAL(LEFT$(T$, 2)): MM = VAL(MID$(T$, 4, 2)): SS = VAL(RIGHT$(T$, 2))
230 AH = (HH MOD 12 + MM / 60) * PI / 6: AM = (MM + SS / 60) * PI / 30: AQ = SS * PI / 30
240 GOSUB 300: DRAWN = -1
250 RETURN
300 LINE (CX, CY)-(CX + 100 * SIN(AH), CY - 100 * COS(AH)), &HFFFFFF, , , XOR
310 LINE (CX, CY)-(CX + 150 * SIN(AM), CY - 150 * COS(AM)), &H55FF55, , , XOR
320 LINE (CX, CY)-(CX + 180 * SIN(AQ), CY - 180 * COS(AQ)), &HFF55FF, , , XOR
330 RETURN
