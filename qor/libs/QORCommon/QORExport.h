/// \file
/// Marks what libqor.so offers to the agent, the client and plug-ins. Everything else stays hidden.
#pragma once

#define QOR_API __attribute__((visibility("default")))
