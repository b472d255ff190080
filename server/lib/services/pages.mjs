import { HttpError, sendText } from '../http.mjs';

export const PAGES_PATH = '/services/';

// A live media playlist (RFC 8216) that has no segment yet, and never gets one.
const PLAYLIST = [
  ...['#EXTM3U', '#EXT-X-VERSION:3', '#EXT-X-TARGETDURATION:6', '#EXT-X-MEDIA-SEQUENCE:0'],
  '',
].join('\n');

const escape = (text) => text.replace(/[&<>"']/g, (letter) => `&#${letter.charCodeAt(0)};`);

const board = (roomId) => `<!doctype html>
<html lang="en">
<meta charset="utf-8">
<title>Whiteboard of ${escape(roomId)}</title>
<p>This stands in for the whiteboard of the meeting &ldquo;${escape(roomId)}&rdquo;.
It cannot be drawn on.</p>
</html>
`;

const PAGES = {
  hls: () => [PLAYLIST, 'application/vnd.apple.mpegurl'],
  whiteboard: (roomId) => [board(roomId), 'text/html; charset=utf-8'],
};

/** Where the pages of a run of a service are, under the keys with which events name them. */
export function pageUrls({ name, row: { pages }, room }, run) {
  // The service has no address while it is down, and a transcription may start again then.
  if (!pages) return {};
  const base = `https://${room.settings.address()}${PAGES_PATH}${name}`;
  const folder = `${base}/${encodeURIComponent(room.id.toWellFormed())}/${run}`;
  return Object.fromEntries(
    Object.entries(pages).map(([key, page]) => [key, `${folder}/${page}`]),
  );
}

function roomOf(rooms, part) {
  try {
    return rooms.find(decodeURIComponent(part));
  } catch {
    return undefined; // not well encoded
  }
}

/** GET /services/<service>/<meeting>/<run>/<page>, as long as that run lasts. */
export const pagesHandler =
  ({ rooms }) =>
  (request, response, rest) => {
    const [name, meeting = '', run, page] = rest.split('/');
    const room = Object.hasOwn(PAGES, name) ? roomOf(rooms, meeting) : undefined;
    const service = room?.services.find(name);
    const there =
      service?.run === run &&
      service.status !== 'STOPPED' &&
      Object.values(service.row.pages).includes(page);
    if (!there) throw new HttpError(404, 'no such page');
    sendText(response, 200, ...PAGES[name](room.id));
  };
