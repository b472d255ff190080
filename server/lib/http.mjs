const LARGEST_BODY = 256 * 1024;

export class HttpError extends Error {
  constructor(status, text) {
    super(text);
    this.status = status;
  }
}

/**
 * The `size` of the request's body, and its `bytes` unless it is too long. Such a one is read to
 * its end all the same, up to `drain` bytes more: who is still sending doesn't hear a refusal.
 */
export async function collect(
  request,
  { largest = LARGEST_BODY, drain = 16 * LARGEST_BODY } = {},
) {
  const chunks = [];
  let size = 0;
  for await (const chunk of request) {
    size += chunk.length;
    if (size <= largest) chunks.push(chunk);
    else chunks.length = 0;
    if (size > largest + drain) break;
  }
  return { size, bytes: size > largest ? undefined : Buffer.concat(chunks) };
}

/** The request's body parsed as JSON; an empty one is an empty object. */
export async function readJson(request, { largest = LARGEST_BODY, drain } = {}) {
  const { size, bytes } = await collect(request, { largest, drain });
  if (!bytes) throw new HttpError(413, `a body has at most ${largest} bytes`);
  if (size === 0) return {};
  try {
    return JSON.parse(bytes.toString('utf8'));
  } catch {
    throw new HttpError(400, 'the body is not JSON');
  }
}

export function sendText(response, status, body, type = 'application/json') {
  const bytes = Buffer.from(body);
  response.writeHead(status, {
    'content-type': type,
    'content-length': bytes.length,
    'cache-control': 'no-store',
  });
  response.end(bytes);
}

export const sendJson = (response, status, value) =>
  sendText(response, status, JSON.stringify(value));

/** A request listener over [method, path or prefix ending in "/", handler] rows. */
export function router(routes, log) {
  async function answer(request, response) {
    const path = request.url.split('?', 1)[0];
    const here = routes.filter(([, at]) => (at.endsWith('/') ? path.startsWith(at) : path === at));
    if (here.length === 0) throw new HttpError(404, 'no such path');
    const route = here.find(([method]) => method === request.method);
    if (!route) throw new HttpError(405, `use ${here.map(([method]) => method).join(', ')}`);
    await route[2](request, response, path.slice(route[1].length));
  }
  return (request, response) => {
    answer(request, response).catch((error) => {
      if (response.headersSent || response.destroyed) return response.destroy();
      if (!error.status) log.error('an HTTP request failed', { error: error.stack });
      // What is left of a refused body is not read, so the connection cannot be used again.
      if (!request.complete) response.setHeader('connection', 'close');
      const code = Number.isInteger(error.code) ? { code: error.code } : {};
      const message = error.status ? error.message : 'internal error';
      sendJson(response, error.status ?? 500, { error: message, ...code });
    });
  };
}
