#pragma once
// Running against the simulated camera: the tool re-executes itself with the simulation
// library preloaded, so the plug-in's system calls meet the simulated camera while the
// tool and plug-in binaries stay exactly those used with a real camera.

#include <QString>

// Returns only on failure (with a message); on success the process image is replaced.
// Does nothing and returns true when the simulation is already loaded.
bool enterSimulation(int argc, char** argv, const QString& model, QString* error);
