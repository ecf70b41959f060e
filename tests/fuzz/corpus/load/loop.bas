10 REM a program
20 FOR I = 1 TO 10
30   PRINT I; I*I
40 NEXT I
50 END
