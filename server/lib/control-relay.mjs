import { need } from './control-parts.mjs';

export const relayActions = {
  failRelay(service, { meetingId, reason = 'ordered by the control endpoint' }, { room }) {
    need(room().relays.sent.get(meetingId), 'relay').fail(`${reason}`);
  },
};
