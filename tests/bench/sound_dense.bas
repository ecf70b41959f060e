10 REM A dense passage for the sound engine: 256 sustained string voices
20 REM under a stream of piano, bass and drum notes on the other channels.
30 REM Prints SOUNDLOAD() along the way and the engine's report at the end.
40 REM   build/tambril --headless --batch --audio-out dense.wav tests/bench/sound_dense.bas [seconds]
50 SECS = 60: IF COMMANDLINECOUNT > 0 THEN SECS = VAL(COMMANDLINEARG$(1))
60 SOUND PRELOAD
70 FOR CH = 0 TO 23: INSTRUMENT CH, 48: NEXT
80 INSTRUMENT 24, 0: INSTRUMENT 25, 33: INSTRUMENT 26, 128: INSTRUMENT 27, 0
90 N = 0
100 WHILE SOUNDACTIVE() < 256 AND N < 400
110   NOTE N MOD 24, 36 + (N * 7) MOD 60, 80: N = N + 1: WAITREL 2
120 WEND
130 PRINT "voices:"; SOUNDACTIVE()
140 T0 = TIMER: PEAK = 0: SAMPLES = 0: TOTAL = 0
150 WHILE TIMER - T0 < SECS
160   K = 48 + INT(RND * 36): NOTE 24, K, 100: NOTE 27, K + 12, 70
170   NOTE 25, 28 + INT(RND * 12), 110: NOTE 26, 35 + INT(RND * 12), 100
180   WAITREL 60
190   NOTEOFF 24, K: NOTEOFF 27, K + 12
200   L = SOUNDLOAD(): TOTAL = TOTAL + L: SAMPLES = SAMPLES + 1: IF L > PEAK THEN PEAK = L
210 WEND
220 PRINT USING "SOUNDLOAD(): mean ##.#%, peak ##.#%, voices at the end ###"; TOTAL / SAMPLES; PEAK; SOUNDACTIVE()
230 SOUND INFO
