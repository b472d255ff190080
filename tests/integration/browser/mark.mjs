/** A frame number in a picture: BITS square fields along the top, the lowest bit first. */
export const BITS = 12;

export const markWidth = (width) => Math.floor(width / BITS);

/** The number in a picture of this size; `brightness(x, y)` gives 0 to 255. */
export function readMark(width, brightness) {
  const field = markWidth(width);
  let number = 0;
  for (let bit = 0; bit < BITS; bit += 1) {
    const middle = brightness(Math.floor((bit + 0.5) * field), Math.floor(field / 2));
    if (middle > 85 && middle < 170) throw new Error(`field ${bit} is neither black nor white`);
    if (middle >= 170) number |= 1 << bit;
  }
  return number;
}
