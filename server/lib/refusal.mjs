// Reasons for which an access is refused, with the number that clients know and an HTTP status.
const REASONS = {
  apiKey: [4001, 401, "the token's apikey is missing or invalid"],
  token: [4002, 401, 'the token is empty, invalid or expired'],
  meetingId: [4003, 400, 'the meeting id is empty or invalid'],
  participantId: [4004, 400, 'the participant id is empty or invalid'],
  duplicate: [4005, 409, 'this participant joined from another device'],
  permissions: [4008, 403, "the token's permissions are invalid"],
  otherMeeting: [4022, 403, 'the token is not valid for this meeting'],
  otherParticipant: [4023, 403, 'the token is not valid for this participant'],
  request: [4025, 403, 'the request is not allowed'],
};

export class Refusal extends Error {
  constructor(reason, text = REASONS[reason][2]) {
    super(text);
    [this.code, this.status] = REASONS[reason];
  }
}

/** A request that is answered with status "error"; the numbers follow HTTP. */
export class RequestError extends Error {
  constructor(code, text) {
    super(text);
    this.code = code;
    this.status = code;
  }
}
