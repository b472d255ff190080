import { readJson, sendJson, sendText } from './http.mjs';
import { isObject } from './read.mjs';
import { Refusal } from './refusal.mjs';
import { checkAccess } from './tokens.mjs';

export const SOCKET_PREFIX = '/meeting';

/** Answers POST /infra/v1/meetings/init-config: where a meeting's signalling and reports go. */
export function configHandler({ secret, address, faults, observability }) {
  return async (request, response) => {
    const body = await readJson(request);
    const roomId = isObject(body) ? body.roomId : undefined;
    const fault = faults.take('answerConfig', { roomId });
    if (fault)
      return sendText(
        response,
        fault.status ?? 200,
        fault.text ?? JSON.stringify(fault.json ?? null),
      );
    if (!isObject(body)) throw new Refusal('meetingId');
    const claims = checkAccess(secret, request.headers.authorization, { roomId });
    sendJson(response, 200, {
      data: {
        baseUrl: address(),
        socketPath: SOCKET_PREFIX,
        observability: observability.configuration(roomId, claims),
      },
    });
  };
}
