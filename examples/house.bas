10 REM A picture drawn with DRAW's macro language: a house with a door and a
20 REM window, a sun made of turned rays, a star from a string variable and
30 REM a fence whose posts are counted with =expr; in the commands.
40 SCREEN 640, 480: CLS 0
50 LINE (0, 380)-(639, 479), 2, BF
60 DRAW "BM150,380 C15 R200 U150 H100 G100 D150"
70 DRAW "BM160,375 P6,15"
80 DRAW "BM180,380 C14 U70 R40 D70 BM+5,-40 C0 R2"
90 DRAW "BM260,300 C14 R50 D40 L50 U40 BM+5,5 P9,14 BM+20,-5 C14 D40 BM-25,-20 R50"
100 FOR A = 0 TO 345 STEP 15: DRAW "BM520,90 C14 TA" + STR$(A) + " BU30 NU25": NEXT
110 CIRCLE (520, 90), 28, 14: PAINT (520, 90), 14
120 STAR$ = "R20 TA144 R20 TA288 R20 TA72 R20 TA216 R20 TA0"
130 FOR I = 0 TO 4: DRAW "BM" + STR$(40 + I * 70) + "," + STR$(40 + (I MOD 2) * 30) + " C15 XSTAR$;": NEXT
140 FOR K = 0 TO 14: X = 380 + K * 17: DRAW "BM=X;,380 C6 U40 E4 F4 D40": NEXT
150 DRAW "BM380,360 C6 R=15*17+8;"
160 LOCATE 30, 1: PRINT "Drawn with DRAW";
