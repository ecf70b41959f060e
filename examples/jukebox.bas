10 REM Jukebox: writes a small MIDI song and a bell sound, then plays both.
20 REM The song (JINGLE.MID) has a tempo track and a track of piano, bass
30 REM and drums; the bell (BELL.WAV) is 22,050 Hz PCM, resampled on LOADWAV.
40 REM Needs a sound device (or --audio-out) and the General MIDI bank.
50 GOSUB 1000: GOSUB 2000
60 LOADMID 0, "JINGLE.MID": MIDINFO 0
70 LOADWAV 0, "BELL.WAV": WAVINFO 0
80 PRINT USING "Playing #.## seconds of music."; MIDLENGTH(0)
90 PLAYMID 0
100 FOR P = -1 TO 1 STEP 0.5
110   WAITREL 700: PLAYWAV 0, -1, 0, 0.6, P
120   PRINT USING "  bell on channel ## at pan +#.#, music at ##.## s"; WAVCHANNEL(); P; MIDPOS()
130 NEXT P
140 WAITMID: WAITWAV
150 PRINT "Done."
160 END
1000 REM ---- JINGLE.MID: 96 ticks a quarter note, 132 beats a minute
1010 T0$ = CHR$(0) + CHR$(255) + CHR$(81) + CHR$(3) + CHR$(6) + CHR$(239) + CHR$(145)
1020 T0$ = T0$ + CHR$(0) + CHR$(255) + CHR$(47) + CHR$(0)
1030 T$ = CHR$(0) + CHR$(192) + CHR$(0) + CHR$(0) + CHR$(193) + CHR$(33)
1040 T$ = T$ + CHR$(0) + CHR$(176) + CHR$(91) + CHR$(70) + CHR$(0) + CHR$(177) + CHR$(10) + CHR$(40)
1050 READ N: D = 0
1060 FOR I = 1 TO N
1070   READ M, B, K
1080   REM Melody note, bass note and a drum on each eighth: on at delta D, off 48 ticks later
1090   V = D: GOSUB 1500: T$ = T$ + V$ + CHR$(144) + CHR$(M) + CHR$(100)
1100   T$ = T$ + CHR$(0) + CHR$(145) + CHR$(B) + CHR$(90) + CHR$(0) + CHR$(153) + CHR$(K) + CHR$(80)
1110   V = 40: GOSUB 1500: T$ = T$ + V$ + CHR$(128) + CHR$(M) + CHR$(0)
1120   T$ = T$ + CHR$(0) + CHR$(129) + CHR$(B) + CHR$(0) + CHR$(0) + CHR$(137) + CHR$(K) + CHR$(0)
1130   D = 8
1140 NEXT I
1150 T$ = T$ + CHR$(96) + CHR$(255) + CHR$(47) + CHR$(0)
1160 OPEN "JINGLE.MID" FOR OUTPUT AS #1
1170 PRINT #1, "MThd"; CHR$(0); CHR$(0); CHR$(0); CHR$(6); CHR$(0); CHR$(1); CHR$(0); CHR$(2); CHR$(0); CHR$(96);
1180 L = LEN(T0$): GOSUB 1600: PRINT #1, "MTrk"; L$; T0$;
1190 L = LEN(T$): GOSUB 1600: PRINT #1, "MTrk"; L$; T$;
1200 CLOSE #1
1210 RETURN
1500 REM ---- V as a MIDI variable-length value in V$ (V below 16384)
1510 IF V < 128 THEN V$ = CHR$(V) ELSE V$ = CHR$(128 + V \ 128) + CHR$(V MOD 128)
1520 RETURN
1600 REM ---- L as four big-endian bytes in L$
1610 L$ = CHR$(0) + CHR$(0) + CHR$(L \ 256) + CHR$(L MOD 256)
1620 RETURN
2000 REM ---- BELL.WAV: 1 s at 22,050 Hz, two decaying partials
2010 R = 22050: N = R
2020 OPEN "BELL.WAV" FOR OUTPUT AS #1
2030 PRINT #1, "RIFF"; MKI$(N * 2 + 36 - 65536); MKI$(0); "WAVEfmt "; MKI$(16); MKI$(0); MKI$(1); MKI$(1);
2040 PRINT #1, MKI$(R); MKI$(0); MKI$(R * 2 - 65536); MKI$(0); MKI$(2); MKI$(16);
2050 PRINT #1, "data"; MKI$(N * 2 - 65536); MKI$(0);
2060 FOR I = 0 TO N - 1
2070   X = EXP(-I / 5000) * (0.6 * SIN(I * 6.2832 * 880 / R) + 0.3 * SIN(I * 6.2832 * 2217 / R))
2080   PRINT #1, MKI$(INT(X * 20000));
2090 NEXT I
2100 CLOSE #1
2110 RETURN
3000 REM ---- melody, bass and drum key of each eighth note
3010 DATA 16
3020 DATA 72,48,36, 76,48,42, 79,55,38, 76,55,42, 77,53,36, 81,53,42, 84,57,38, 81,57,42
3030 DATA 79,55,36, 76,55,42, 74,50,38, 71,50,42, 72,48,36, 67,43,42, 72,48,38, 72,48,49
