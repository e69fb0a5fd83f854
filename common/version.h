// The version of this build, as the project's main CMake file gives it.
#pragma once

constexpr char zarvo_version[] = ZARVO_VERSION;
