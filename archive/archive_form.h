// The two forms of a debug archive.
#pragma once

enum class archive_form {
    usual,
    full,  // with the processes' state, the kernel's log, a description of the system and a manifest
};
