#include "Person.h"

#include <utility>

namespace kestrova::meet {

std::shared_ptr<Person> Person::make(const std::shared_ptr<Participant>& participant,
                                     MediaWatch::Teller tell,
                                     std::shared_ptr<recording::Recording> recorded) {
  MediaWatch::Whose whose{
      .id = participant->id(), .name = participant->displayName(), .local = participant->isLocal()};
  std::shared_ptr<Person> self(
      new Person(MediaWatch::make(std::move(whose), std::move(tell), std::move(recorded))));
  self->came(participant);
  return self;
}

void Person::came(const std::shared_ptr<Participant>& participant) {
  if (_participant.lock() == participant && _here) return;
  _here = true;
  _participant = participant;
  _media->clear();
  participant->addEventListener(shared_from_this());
  // Those that came before the listener.
  for (const auto& [id, stream] : participant->streams()) _media->add(stream);
}

void Person::left() {
  _here = false;
  _participant.reset();
  _media->clear();
}

PersonRow Person::row() const {
  auto row = _media->row(_here);
  if (const auto agent = std::dynamic_pointer_cast<AgentParticipant>(_participant.lock()))
    row.doing = text(agent->agentState());
  return row;
}

void Person::onStreamEnabled(const std::shared_ptr<MediaStream>& stream,
                             const std::shared_ptr<Participant>&) {
  _media->add(stream);
}

void Person::onStreamDisabled(const std::shared_ptr<MediaStream>& stream,
                              const std::shared_ptr<Participant>&) {
  _media->remove(stream);
}

void Person::e2eeStateChanged(const std::shared_ptr<Participant>&, E2EEState state,
                              const std::shared_ptr<MediaStream>& stream) {
  const std::string kind(text(stream->kind()));
  const bool works = state == E2EEState::EncryptionSuccess || state == E2EEState::DecryptionSuccess;
  const std::string what = _media->local() ? "encrypted" : "decrypted";
  _media->tell("e2ee", {{"kind", kind}, {"state", text(state)}},
               kind + " of " + _media->name() + (works ? " is " : " can't be ") + what);
}

// ---- Agents ------------------------------------------------------------------------------------

void Person::onAgentStateChanged(AgentState state, const std::shared_ptr<Participant>&) {
  _media->tell("agentState", {{"state", text(state)}}, "");
}

void Person::onAgentTranscriptionReceived(const TranscriptionSegment& segment,
                                          const std::shared_ptr<Participant>& participant) {
  // The local participant hears it, too, of every agent.
  if (participant->id() != id()) return;
  _media->tell("agentTranscript", {{"text", segment.text}, {"timestamp", segment.timestamp}},
               _media->name() + ": " + segment.text);
}

void Person::onAgentMetrics(const Dictionary& metrics, const std::shared_ptr<Participant>&) {
  _media->tell("agentMetrics", {{"metrics", metrics}}, "");
}

}  // namespace kestrova::meet
