#pragma once

/// The one header to start with: what an application needs, and nothing of the inside.
///
/// It is made to be read quickly. Who awaits a `Task`, looks into a `Dictionary`, or runs the main
/// queue includes Task.h, Values.h or Queue.h of kestrova/platform besides.

#include <kestrova/media/AudioFrameSource.h>
#include <kestrova/media/AuthorisationDelegate.h>
#include <kestrova/media/BaseKeyProvider.h>
#include <kestrova/media/CustomRTCMediaStream.h>
#include <kestrova/media/KestrovaBackgroundProcessor.h>
#include <kestrova/media/KestrovaVideoProcessor.h>
#include <kestrova/media/PushResult.h>
#include <kestrova/media/SinkHandle.h>
#include <kestrova/media/VideoFrameSource.h>
#include <kestrova/model/AudioDevice.h>
#include <kestrova/model/CharacterTypes.h>
#include <kestrova/model/KestrovaError.h>
#include <kestrova/model/LinkCondition.h>
#include <kestrova/model/ListenerHandle.h>
#include <kestrova/model/MeetingEnd.h>
#include <kestrova/model/MeetingTypes.h>
#include <kestrova/model/MetaData.h>
#include <kestrova/model/RoomClientError.h>
#include <kestrova/model/ServiceConfigs.h>
#include <kestrova/model/ServiceStates.h>
#include <kestrova/platform/Capture.h>
#include <kestrova/platform/VideoFrame.h>
#include <kestrova/session/AICharacter.h>
#include <kestrova/session/AcceptMediaRequest.h>
#include <kestrova/session/CharacterEventListener.h>
#include <kestrova/session/CharacterEvents.h>
#include <kestrova/session/Kestrova.h>
#include <kestrova/session/MediaStream.h>
#include <kestrova/session/Meeting.h>
#include <kestrova/session/MeetingEventListener.h>
#include <kestrova/session/MeetingEvents.h>
#include <kestrova/session/Participant.h>
#include <kestrova/session/ParticipantEventListener.h>
#include <kestrova/session/ParticipantEvents.h>
#include <kestrova/tracing/LogHandler.h>
