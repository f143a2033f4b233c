# Shared settings for the project's scripts; sourced, not run.
BRENNOCK_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BRENNOCK_BUILD=${BRENNOCK_BUILD:-$BRENNOCK_ROOT/build}
export WINEPREFIX=${BRENNOCK_WINEPREFIX:-$BRENNOCK_BUILD/wineprefix}
export WINEARCH=win64
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-"mscoree,mshtml="}
# Keep Wine from looking for a display or a sound server it will not find.
unset DISPLAY WAYLAND_DISPLAY
# Sound only from the bench's own server (scripts/simrun --sound hands its
# address on in BRENNOCK_SOUND_SERVER); otherwise a socket that is never
# there, and no client ever starts a server of its own.
export PULSE_SERVER=${BRENNOCK_SOUND_SERVER:-unix:/nonexistent/brennock-no-sound}
export PULSE_CLIENTCONFIG="$BRENNOCK_ROOT/scripts/pulse-client.conf"

# Debian packages the project needs on a fresh machine.
BRENNOCK_PACKAGES="wine64 wine libwine-dev g++-mingw-w64-x86-64-posix mingw-w64-tools cmake make
  googletest libz-mingw-w64-dev libssl-dev zlib1g-dev openssl zip unzip python3 g++ ca-certificates
  pulseaudio pulseaudio-utils sox libsox-fmt-base espeak-ng python3-matplotlib python3-numpy
  clang libclang-rt-dev"

brennock_log() { echo "[brennock] $*" >&2; }
