10 REM Console text and graphics in one frame: COLOR backgrounds, GPRINT at
20 REM pixel positions, scrolling that carries drawings up, a text window
30 REM scrolling over graphics, CLS 2 and SCREENCHAR
40 SCREEN 512, 384: CLS 0
50 FOR I = 0 TO 15: LINE (I * 32, 0)-(I * 32 + 31, 383), I, BF: NEXT
60 CIRCLE (256, 300), 60, 15: PAINT (256, 300), 0, 15
70 COLOR 15, 1: PRINT "Text on blue": COLOR 0, 14: PRINT "black on yellow";: COLOR 15, 0: PRINT
80 GPRINT 3, 101, "GPRINT at (3,101)": COLOR 14, 4: GPRINT 200, 377, "bottom edge": COLOR 15, 0
90 LOCATE 22, 1: PRINT "scroll 1": PRINT "scroll 2": PRINT "scroll 3"
100 TXTWINDOW 40, 3, 60, 8: COLOR 10, 0: FOR I = 1 TO 9: PRINT "window line"; I: NEXT: TXTWINDOW
110 VIEW PRINT 10 TO 12: COLOR 11, 5: CLS 2: PRINT "viewport": VIEW PRINT: COLOR 15, 0
120 LOCATE 14, 1: PRINT SCREENCHAR(1, 1); SCREENCHAR(14, 1); SCREEN(1, 1)
