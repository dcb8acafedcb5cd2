// What other threads ask of the live forwarding loop: to hold still at a
// batch boundary while they read or change what it works on (the
// console's commands), or to end the traffic. The loop polls fd beside its
// ports, so a request wakes it from its sleep; between requests its only
// cost is one atomic load a batch.
//
// One thread asks for pauses (the console); pause and resume pairs may
// nest on it, the outer pair holding the loop.
#pragma once

struct pe_control_t;

// Null when the system gives no event descriptor.
pe_control_t* pe_control_create();
void pe_control_destroy(pe_control_t* control);
// Readable while a request waits: the loop polls it.
int pe_control_fd(const pe_control_t* control);

// Returns once the loop rests at a batch boundary, or at once when it has
// finished; it rests until pe_control_resume.
void pe_control_pause(pe_control_t* control);
void pe_control_resume(pe_control_t* control);
// The traffic ends at the loop's next batch boundary.
void pe_control_end_traffic(pe_control_t* control);

// The loop, between two batches: whether a request waits (cheap).
bool pe_control_asked(const pe_control_t* control);
// The loop, between two batches: rests while a pause is asked for; true
// when the traffic is to end.
bool pe_control_serve(pe_control_t* control);
// The loop, when it has ended: pauses no longer wait for it.
void pe_control_finish(pe_control_t* control);
