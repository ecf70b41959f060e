// The SDL2 functions the window and the audio device use, opened on first use
// (see host/posix/lazy_library.h). Without libSDL2 installed, SDL_Init fails
// and the system runs headless, as it does without a display.
#include <SDL.h>

#include "host/posix/lazy_library.h"

namespace {
host::LazyLibrary sdl("libSDL2-2.0.so.0", "libSDL2.so");
}  // namespace

#define SDL_FORWARD(ret, name, params, args, fail) TAMBRIL_LAZY_FORWARD(sdl, ret, name, params, args, fail)

SDL_FORWARD(int, SDL_Init, (Uint32 flags), (flags), -1)
SDL_FORWARD(int, SDL_InitSubSystem, (Uint32 flags), (flags), -1)
SDL_FORWARD(void, SDL_Quit, (void), (), void())
SDL_FORWARD(const char*, SDL_GetError, (void), (), "the SDL2 library is not installed")
SDL_FORWARD(SDL_bool, SDL_SetHint, (const char* name, const char* value), (name, value), SDL_FALSE)
SDL_FORWARD(char*, SDL_getenv, (const char* name), (name), nullptr)
SDL_FORWARD(void, SDL_free, (void* mem), (mem), void())
SDL_FORWARD(const char*, SDL_GetCurrentVideoDriver, (void), (), nullptr)
SDL_FORWARD(int, SDL_SetThreadPriority, (SDL_ThreadPriority priority), (priority), -1)

SDL_FORWARD(SDL_Window*, SDL_CreateWindow, (const char* title, int x, int y, int w, int h, Uint32 flags),
            (title, x, y, w, h, flags), nullptr)
SDL_FORWARD(void, SDL_DestroyWindow, (SDL_Window * window), (window), void())
SDL_FORWARD(void, SDL_ShowWindow, (SDL_Window * window), (window), void())
SDL_FORWARD(Uint32, SDL_GetWindowFlags, (SDL_Window * window), (window), 0)
SDL_FORWARD(void, SDL_SetWindowSize, (SDL_Window * window, int w, int h), (window, w, h), void())
SDL_FORWARD(void, SDL_GetWindowSize, (SDL_Window * window, int* w, int* h), (window, w, h), void())
SDL_FORWARD(int, SDL_SetWindowFullscreen, (SDL_Window * window, Uint32 flags), (window, flags), -1)
SDL_FORWARD(int, SDL_GetWindowDisplayIndex, (SDL_Window * window), (window), -1)
SDL_FORWARD(int, SDL_GetNumDisplayModes, (int display), (display), -1)
SDL_FORWARD(int, SDL_GetDisplayMode, (int display, int mode_index, SDL_DisplayMode* mode),
            (display, mode_index, mode), -1)
SDL_FORWARD(int, SDL_ShowCursor, (int toggle), (toggle), -1)
SDL_FORWARD(int, SDL_CaptureMouse, (SDL_bool enabled), (enabled), -1)
SDL_FORWARD(char*, SDL_GetClipboardText, (void), (), nullptr)
SDL_FORWARD(void, SDL_StartTextInput, (void), (), void())
SDL_FORWARD(SDL_Keymod, SDL_GetModState, (void), (), KMOD_NONE)

SDL_FORWARD(SDL_Renderer*, SDL_CreateRenderer, (SDL_Window * window, int index, Uint32 flags),
            (window, index, flags), nullptr)
SDL_FORWARD(void, SDL_DestroyRenderer, (SDL_Renderer * renderer), (renderer), void())
SDL_FORWARD(int, SDL_GetRendererOutputSize, (SDL_Renderer * renderer, int* w, int* h), (renderer, w, h), -1)
SDL_FORWARD(int, SDL_SetRenderDrawColor, (SDL_Renderer * renderer, Uint8 r, Uint8 g, Uint8 b, Uint8 a),
            (renderer, r, g, b, a), -1)
SDL_FORWARD(int, SDL_RenderClear, (SDL_Renderer * renderer), (renderer), -1)
SDL_FORWARD(int, SDL_RenderCopy,
            (SDL_Renderer * renderer, SDL_Texture* texture, const SDL_Rect* src, const SDL_Rect* dst),
            (renderer, texture, src, dst), -1)
SDL_FORWARD(void, SDL_RenderPresent, (SDL_Renderer * renderer), (renderer), void())
SDL_FORWARD(SDL_Texture*, SDL_CreateTexture, (SDL_Renderer * renderer, Uint32 format, int access, int w, int h),
            (renderer, format, access, w, h), nullptr)
SDL_FORWARD(void, SDL_DestroyTexture, (SDL_Texture * texture), (texture), void())
SDL_FORWARD(int, SDL_LockTexture, (SDL_Texture * texture, const SDL_Rect* rect, void** pixels, int* pitch),
            (texture, rect, pixels, pitch), -1)
SDL_FORWARD(void, SDL_UnlockTexture, (SDL_Texture * texture), (texture), void())

SDL_FORWARD(int, SDL_WaitEvent, (SDL_Event * event), (event), 0)
SDL_FORWARD(int, SDL_WaitEventTimeout, (SDL_Event * event, int timeout), (event, timeout), 0)
SDL_FORWARD(int, SDL_PollEvent, (SDL_Event * event), (event), 0)
SDL_FORWARD(int, SDL_PushEvent, (SDL_Event * event), (event), -1)
SDL_FORWARD(Uint32, SDL_RegisterEvents, (int count), (count), static_cast<Uint32>(-1))
SDL_FORWARD(SDL_TimerID, SDL_AddTimer, (Uint32 interval, SDL_TimerCallback callback, void* param),
            (interval, callback, param), 0)
SDL_FORWARD(SDL_bool, SDL_RemoveTimer, (SDL_TimerID id), (id), SDL_FALSE)

SDL_FORWARD(SDL_AudioDeviceID, SDL_OpenAudioDevice,
            (const char* device, int iscapture, const SDL_AudioSpec* desired, SDL_AudioSpec* obtained,
             int allowed_changes),
            (device, iscapture, desired, obtained, allowed_changes), 0)
SDL_FORWARD(void, SDL_CloseAudioDevice, (SDL_AudioDeviceID dev), (dev), void())
SDL_FORWARD(void, SDL_PauseAudioDevice, (SDL_AudioDeviceID dev, int pause_on), (dev, pause_on), void())
SDL_FORWARD(SDL_AudioStatus, SDL_GetAudioDeviceStatus, (SDL_AudioDeviceID dev), (dev), SDL_AUDIO_STOPPED)
