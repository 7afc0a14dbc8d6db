// The control API tests and the demo use to script the service and look at what it saw.
// Plain HTTP, meant for loopback only; README.md lists the calls.
#pragma once

#include <httplib.h>

class RefState;

void ref_install_control_routes(httplib::Server &server, RefState &state);
