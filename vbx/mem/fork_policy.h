// Keeps forked children from hanging and from writing reports.
#pragma once

// Registers the fork handlers. Called once, at start.
void mem_install_fork_policy();
