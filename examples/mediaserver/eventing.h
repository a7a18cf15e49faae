// SPDX-License-Identifier: Apache-2.0
// A small GENA implementation for the two services, so that control points that subscribe get
// their answer and their initial event: SUBSCRIBE (new and renewal) and UNSUBSCRIBE on each
// service's event URL, the initial event after the answer, and a new event to every
// ContentDirectory subscriber when the shared folder changes. Eventing is not part of the
// library; a host that needs more (moderation, LastChange) builds on the same pieces.
#pragma once

namespace mediaserver {

// Registers the SUBSCRIBE/UNSUBSCRIBE handlers on "/ContentDirectory/Event" and
// "/ConnectionManager/Event" (before the servers start).
void RegisterEventHandlers();

// Sends SystemUpdateID (and ContainerUpdateIDs) to every live ContentDirectory subscriber;
// called by the host after CheckForChanges() saw a change. Returns at once; sending happens on
// a thread of the library's.
void NotifyContentChanged();

// Expires subscriptions whose time-out has passed; the host calls it from its main loop.
void ExpireSubscriptions();

// Ends eventing: no more events are sent and subscriptions are dropped.
void StopEventing();

}  // namespace mediaserver
