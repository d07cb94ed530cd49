/* A canvas as sharp as the screen, and what drawings have in common. */
import { el } from '../ui/dom';
import { colour, onTheme } from '../ui/theme';
import { LAYERS } from './model';

export const FONT = '12px system-ui, "Segoe UI", Roboto, "Noto Sans", "DejaVu Sans", sans-serif';
export const BOLD = `600 ${FONT}`;

const MOST_TEXTS = 5000;

/* Of a statement that is too long, what it reads from says more than its columns. */
const COLUMNS = /^(SELECT(?: DISTINCT)?) (?!… ).{4,}? (FROM )/i;

/* Of the colours that drawings use. */
export interface Palette {
	readonly layers: readonly string[];
	readonly text: string;
	readonly muted: string;
	readonly line: string;
	readonly back: string;
	readonly surface: string;
	readonly hover: string;
	readonly chosen: string;
	readonly accent: string;
	readonly bad: string;
	readonly badBack: string;
	readonly path: string;
	readonly onLayer: string;
	readonly shade: string;
}

function readPalette(): Palette {
	return {
		layers: LAYERS.map((layer) => colour(`--layer-${layer}`)),
		text: colour('--text'),
		muted: colour('--muted'),
		line: colour('--line'),
		back: colour('--raised'),
		surface: colour('--surface'),
		hover: colour('--hover'),
		chosen: colour('--chosen'),
		accent: colour('--accent'),
		bad: colour('--bad'),
		badBack: colour('--bad-back'),
		path: colour('--path'),
		onLayer: colour('--on-layer'),
		shade: colour('--shade'),
	};
}

/*
 * Draws when it is asked to, once before the next frame, however often it was asked; and anew when its
 * size or the theme has changed.
 */
export class Drawing {
	readonly element: HTMLCanvasElement;
	readonly context: CanvasRenderingContext2D;
	width = 0;
	height = 0;
	/* Of the last drawing. */
	scriptMs = 0;
	private waiting = 0;
	private known: Palette | undefined;
	private readonly fitted = new Map<string, string>();
	private readonly endTheme: () => void;
	private readonly observer: ResizeObserver;

	constructor(
		className: string,
		private readonly draw: () => void,
		observed?: Element,
	) {
		this.element = el('canvas', { class: className, 'aria-hidden': 'true' });
		const context = this.element.getContext('2d', { alpha: false });
		if (!context) {
			throw new Error('this browser cannot draw');
		}
		this.context = context;
		this.observer = new ResizeObserver(() => this.resize());
		this.observer.observe(observed ?? this.element);
		this.endTheme = onTheme(() => {
			this.known = undefined;
			this.redraw();
		});
	}

	get palette(): Palette {
		this.known ??= readPalette();
		return this.known;
	}

	redraw(): void {
		this.waiting ||= requestAnimationFrame(() => {
			this.waiting = 0;
			if (this.width > 0 && this.height > 0) {
				const begun = performance.now();
				this.draw();
				this.scriptMs = performance.now() - begun;
			}
		});
	}

	resize(): void {
		const { clientWidth, clientHeight } = this.element;
		const ratio = devicePixelRatio || 1;
		const [width, height] = [Math.round(clientWidth * ratio), Math.round(clientHeight * ratio)];
		if (clientWidth !== this.width || clientHeight !== this.height || this.element.width !== width || this.element.height !== height) {
			this.width = clientWidth;
			this.height = clientHeight;
			this.element.width = width;
			this.element.height = height;
		}
		this.redraw();
	}

	clear(background: string): void {
		const { context } = this;
		const ratio = this.width > 0 ? this.element.width / this.width : 1;
		context.setTransform(ratio, 0, 0, ratio, 0, 0);
		context.globalAlpha = 1;
		context.fillStyle = background;
		context.fillRect(0, 0, this.width, this.height);
		context.font = FONT;
		context.textBaseline = 'middle';
		context.direction = 'ltr';
		context.textAlign = 'left';
	}

	/* As much of the text as fits. */
	fit(text: string, width: number): string {
		const room = Math.floor(width / 4) * 4;
		if (room <= 8) {
			return '';
		}
		const key = `${room} ${text}`;
		let known = this.fitted.get(key);
		if (known === undefined) {
			if (this.fitted.size > MOST_TEXTS) {
				this.fitted.clear();
			}
			known = this.cutToFit(text, room);
			this.fitted.set(key, known);
		}
		return known;
	}

	end(): void {
		cancelAnimationFrame(this.waiting);
		this.observer.disconnect();
		this.endTheme();
	}

	private cutToFit(text: string, room: number): string {
		const { context } = this;
		const likely = text.length * 3 > room ? text.slice(0, Math.ceil(room / 3)) : text;
		if (likely === text && context.measureText(text).width <= room) {
			return text;
		}
		const bare = text.replace(COLUMNS, '$1 … $2');
		if (bare !== text) {
			return this.cutToFit(bare, room);
		}
		let [fits, fitsNot] = [0, likely.length];
		while (fitsNot - fits > 1) {
			const middle = (fits + fitsNot) >> 1;
			if (context.measureText(`${likely.slice(0, middle)}…`).width <= room) {
				fits = middle;
			} else {
				fitsNot = middle;
			}
		}
		// Half of a pair of surrogates is no letter.
		const end = fits > 0 && /[\ud800-\udbff]/.test(likely.charAt(fits - 1)) ? fits - 1 : fits;
		return end > 0 ? `${likely.slice(0, end)}…` : '';
	}
}
