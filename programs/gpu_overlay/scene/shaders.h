#ifndef GPU_OVERLAY_SHADERS_H
#define GPU_OVERLAY_SHADERS_H

// The shaders of the scene. Each one is a head with `kLights`, `kCommonShader`, and its own text.

/// What all share: the values of a frame, and how light travels through the haze. `Frame` is SceneFrame of scene.cpp.
constexpr const char* kCommonShader = R"(
layout(std140) uniform Frame {
    mat4 ViewProjection;
    mat4 ViewToWorld;
    vec4 Eye;      // w: seconds
    vec4 Lens;     // xy: half the picture at distance 1, z: strength of each light
    ivec4 Counts;     // x: solids, y: cells along an edge of a face, z: lights
    vec4 Lights[kLights];  // w: 0 is cool, 1 is warm
};
const float kFieldRadius = 10.0;
const vec3 kCool = vec3(0.05, 0.46, 1.00);
const vec3 kWarm = vec3(1.00, 0.36, 0.08);

// What is behind everything, in the direction `ray`.
vec3 Sky(vec3 ray) {
    float height = clamp(ray.y * 1.6 + 0.35, 0.0, 1.0);
    vec3 sky = mix(vec3(0.003, 0.005, 0.010), vec3(0.002, 0.003, 0.008), height);
    return sky + vec3(0.016, 0.026, 0.050) * exp(-22.0 * ray.y * ray.y);
}

// The light that the haze scatters into the eye along the first `reach` of the way.
vec3 Glow(vec3 ray, float reach) {
    vec3 sum = vec3(0.0);
    for (int i = 0; i < Counts.z; ++i) {
        vec3 toLight = Lights[i].xyz - Eye.xyz;
        float along = dot(toLight, ray);
        float scale = inversesqrt(dot(toLight, toLight) - along * along + 0.004);
        float a = (reach - along) * scale;
        float b = along * scale;
        float passed = a / (1.0 + abs(a)) + b / (1.0 + abs(b));
        sum += mix(kCool, kWarm, Lights[i].w) * (passed * scale);
    }
    return sum * (0.045 * Lens.z);
}

// From light to the values of a screen, with a little noise against visible steps.
vec3 Develop(vec3 light, vec2 pixel) {
    vec3 film = light * (2.51 * light + 0.03) / (light * (2.43 * light + 0.59) + 0.14);
    float noise = fract(52.9829189 * fract(dot(pixel, vec2(0.06711056, 0.00583715)))) - 0.5;
    return pow(clamp(film, 0.0, 1.0), vec3(1.0 / 2.2)) + noise / 255.0;
}
)";

constexpr const char* kBackgroundVertexShader = R"(
out vec3 Ray;
void main() {
    vec2 corner = vec2((gl_VertexID << 1) & 2, gl_VertexID & 2) * 2.0 - 1.0;
    Ray = mat3(ViewToWorld) * vec3(corner * Lens.xy, -1.0);
    gl_Position = vec4(corner, 1.0, 1.0);
}
)";

constexpr const char* kBackgroundFragmentShader = R"(
in vec3 Ray;
out vec4 Color;
void main() {
    vec3 ray = normalize(Ray);
    Color = vec4(Develop(Sky(ray) + Glow(ray, 60.0), gl_FragCoord.xy), 1.0);
}
)";

/// A cube with round edges, made from the number of the vertex, and its place, from the number of the instance.
constexpr const char* kSolidVertexShader = R"(
out vec3 Position;
out vec3 Normal;
flat out vec3 Albedo;

mat3 Turn(float yaw, float pitch) {
    float c = cos(yaw), s = sin(yaw), d = cos(pitch), t = sin(pitch);
    return mat3(c, 0, -s, 0, 1, 0, s, 0, c) * mat3(1, 0, 0, 0, d, t, 0, -t, d);
}

void main() {
    int side = Counts.y + 1;
    int face = gl_VertexID / (side * side);
    int cell = gl_VertexID % (side * side);
    // The sine puts more vertices near the edges, which are round.
    vec2 onFace = sin(1.5707963 * (vec2(cell % side, cell / side) * (2.0 / float(Counts.y)) - 1.0));
    float front = face < 3 ? 1.0 : -1.0;
    vec3 cube = vec3(onFace.x * front, onFace.y, front);
    cube = face % 3 == 0 ? cube : face % 3 == 1 ? cube.yzx : cube.zxy;
    vec3 core = clamp(cube, -0.72, 0.72);
    vec3 normal = normalize(cube - core);

    // The golden angle fills the disc evenly, like the seeds of a sunflower. As an integer it loses no digits.
    // From the rim inwards, because what is near to the eye hides much of the rest.
    int seed = Counts.x - 1 - gl_InstanceID;
    float turn = float(uint(seed) * 2654435769u) * (6.2831853 / 4294967296.0);
    float radius = kFieldRadius * sqrt((float(seed) + 0.5) / float(Counts.x));
    float time = Eye.w;
    vec2 place = radius * vec2(cos(turn + time * 0.03), sin(turn + time * 0.03));
    float swell = sin(radius * 1.15 - time * 1.3) * 0.55 + sin(place.x * 0.55 + time * 0.7) * 0.45;
    float size = 0.62 * kFieldRadius * inversesqrt(float(Counts.x));
    mat3 turned = Turn(turn * 3.0 + time * 0.5, 0.5 * swell);
    Position = turned * ((core + 0.28 * normal) * size) + vec3(place.x, swell, place.y);
    Normal = turned * normal;
    Albedo = mix(vec3(0.03, 0.12, 0.20), vec3(0.80, 0.74, 0.66), smoothstep(-0.7, 0.95, swell));
    gl_Position = ViewProjection * vec4(Position, 1.0);
}
)";

constexpr const char* kSolidFragmentShader = R"(
in vec3 Position;
in vec3 Normal;
flat in vec3 Albedo;
out vec4 Color;

void main() {
    vec3 toEye = Eye.xyz - Position;
    float reach = length(toEye);
    toEye /= reach;
    vec3 normal = normalize(Normal);
    vec3 reflected = reflect(-toEye, normal);
    vec3 near = vec3(0.0);
    for (int i = 0; i < Counts.z; ++i) {
        vec3 toLight = Lights[i].xyz - Position;
        float squared = dot(toLight, toLight);
        float inverse = inversesqrt(squared + 0.0001);
        float diffuse = max(dot(normal, toLight) * inverse, 0.0);
        float shine = max(dot(reflected, toLight) * inverse, 0.0);
        shine *= shine;
        shine *= shine;
        shine *= shine;
        near += mix(kCool, kWarm, Lights[i].w) * ((diffuse + shine * shine) / (squared + 0.15));
    }
    // The troughs lie in the shade of the crests.
    float open = smoothstep(-1.6, 0.8, Position.y) * (0.65 + 0.35 * normal.y);
    float moon = max(dot(normal, normalize(vec3(-0.5, 0.8, 0.3))), 0.0);
    float rim = pow(1.0 - max(dot(normal, toEye), 0.0), 4.0);
    vec3 light = Albedo * (open * vec3(0.05, 0.07, 0.12) + open * moon * vec3(0.16, 0.20, 0.30));
    light += (Albedo + 0.04) * near * (10.0 * Lens.z);
    light += rim * open * vec3(0.08, 0.13, 0.22);
    float clear = exp(-0.0022 * reach * reach);
    Color = vec4(Develop(mix(Sky(-toEye), light, clear) + Glow(-toEye, reach), gl_FragCoord.xy), 1.0);
}
)";

#endif  // GPU_OVERLAY_SHADERS_H
